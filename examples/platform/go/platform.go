// A platform: serves the .jpg files of a folder as pages of faces over HTTPS, and takes the reports.
//
// usage: go run platform.go PORT CERTIFICATE KEY FOLDER
package main

import (
	"encoding/json"
	"fmt"
	"log"
	"net"
	"net/http"
	"os"
	"path/filepath"
	"strconv"
	"strings"
)

// A record of a page. The number is what the camera reports back.
type record struct {
	Number  string `json:"credentialNumber"`
	Name    string `json:"name"`
	Picture []byte `json:"picture"` // becomes Base64
}

var faces []string // in the order of their names

// Answers with the records that a camera asks for, as far as there are pictures.
func page(answer http.ResponseWriter, request *http.Request) {
	var asked struct {
		Start *int `json:"startIndex"`
		Count *int `json:"offset"`
	}
	problem := json.NewDecoder(request.Body).Decode(&asked)
	if problem != nil || asked.Start == nil || asked.Count == nil {
		http.Error(answer, "no range of records", http.StatusBadRequest)
		return
	}
	fmt.Printf("page: %d records, from %d\n", *asked.Count, *asked.Start)
	records := []record{}
	for number := *asked.Start; 0 <= number && number < len(faces) && number < *asked.Start+*asked.Count; number++ {
		picture, problem := os.ReadFile(faces[number])
		if problem != nil {
			http.Error(answer, "a picture cannot be read", http.StatusInternalServerError)
			return
		}
		name := strings.TrimSuffix(filepath.Base(faces[number]), ".jpg")
		records = append(records, record{strconv.Itoa(number), name, picture})
	}
	send(answer, map[string][]record{"records": records})
}

// Takes what became of each picture of a page: 0 is imported.
func result(answer http.ResponseWriter, request *http.Request) {
	var report struct {
		Start    int `json:"startIndex"`
		Pictures []struct {
			Status int64 `json:"importStatus"`
		} `json:"ImportInfo"`
	}
	if json.NewDecoder(request.Body).Decode(&report) != nil {
		http.Error(answer, "no report", http.StatusBadRequest)
		return
	}
	imported := 0
	for _, picture := range report.Pictures {
		if picture.Status == 0 {
			imported++
		}
	}
	fmt.Printf("report: %d of %d imported, from %d\n", imported, len(report.Pictures), report.Start)
	send(answer, map[string]string{"result": "ok"})
}

func send(answer http.ResponseWriter, document interface{}) {
	body, problem := json.Marshal(document)
	if problem != nil {
		http.Error(answer, problem.Error(), http.StatusInternalServerError)
		return
	}
	answer.Header().Set("Content-Length", strconv.Itoa(len(body)))
	answer.Write(body) // a camera that is gone by now asks again
}

func main() {
	if len(os.Args) != 5 {
		log.Fatal("usage: go run platform.go PORT CERTIFICATE KEY FOLDER")
	}
	port, certificate, key, folder := os.Args[1], os.Args[2], os.Args[3], os.Args[4]
	var problem error
	if faces, problem = filepath.Glob(filepath.Join(folder, "*.jpg")); problem != nil {
		log.Fatal(problem)
	}
	http.HandleFunc("/faces/page", page)
	http.HandleFunc("/faces/result", result)
	listener, problem := net.Listen("tcp", ":"+port)
	if problem != nil {
		log.Fatal(problem)
	}
	fmt.Printf("the platform is up: https://localhost:%s/faces/page, %d faces\n", port, len(faces))
	log.Fatal(http.ServeTLS(listener, nil, certificate, key))
}
