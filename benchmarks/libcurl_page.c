/*
 * What a straightforward program on libcurl takes for pages: for each, a POST that asks for the page, the page written
 * to its file, a POST with the result of each picture. As the service does it: TLS 1.2, the same ciphers, no check of
 * the certificate, a connection of its own for each POST and no session taken up again. It does nothing else: no
 * exchange with ITGT, no state file, no log.
 *
 * usage: PAGES=n PLATFORM=https://host:port libcurl_page
 *
 * Prints the processor time of all pages but the first in milliseconds, and their page faults.
 */
#include <curl/curl.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <time.h>

enum { PAGE_SIZE = 30, LONGEST_DOCUMENT = 8192 };

static const char TASK_PATH[] = "/platform/whiteList";
static const char RESULT_PATH[] = "/platform/whiteListResult";
static const char CIPHERS[] =
    "ALL:!DH:!aNULL:!eNULL:!SEED-SHA:!CAMELLIA128-SHA:!CAMELLIA256-SHA:!IDEA-CBC-SHA:!RC4:!AES256-SHA:!AES128-SHA:"
    "!DES-CBC3-SHA";

static size_t discard(char* data, size_t size, size_t count, void* target)
{
    (void)data;
    (void)target;
    return size * count;
}

static int post(CURL* curl, const char* path, const char* document, FILE* file)
{
    char url[256];
    long status = 0;
    const char* platform = getenv("PLATFORM");
    snprintf(url, sizeof(url), "%s%s", platform != NULL ? platform : "https://127.0.0.1:8443", path);
    curl_easy_setopt(curl, CURLOPT_URL, url);
    curl_easy_setopt(curl, CURLOPT_POSTFIELDS, document);
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, file != NULL ? NULL : discard);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, file);
    if (curl_easy_perform(curl) != CURLE_OK || curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status) != CURLE_OK) {
        return 0;
    }
    return status == 200;
}

static int fetch_page(CURL* curl, int start)
{
    char document[LONGEST_DOCUMENT];
    char path[64];
    snprintf(document, sizeof(document),
             "{\n \"cameraCode\" : \"C1\",\n \"taskID\" : \"T1\",\n \"startIndex\" : %d,\n \"offset\" : %d,\n"
             " \"datatime\" : \"D1\",\n \"securityCode\" : \"K1\"\n}",
             start, PAGE_SIZE);
    snprintf(path, sizeof(path), "/tmp/mmcblk0/face_basic/white%d", start);
    FILE* file = fopen(path, "wb");
    if (file == NULL) {
        return 0;
    }
    const int fetched = post(curl, TASK_PATH, document, file);
    return fclose(file) == 0 && fetched;
}

static int report_page(CURL* curl, int start)
{
    char document[LONGEST_DOCUMENT];
    int length = snprintf(document, sizeof(document), "{\"ImportInfo\":[");
    for (int i = 0; i < PAGE_SIZE; ++i) {
        length +=
            snprintf(document + length, sizeof(document) - (size_t)length,
                     "%s{\"credentialNumber\":\"110101196001%06d\",\"importStatus\":0}", i > 0 ? "," : "", start + i);
    }
    snprintf(document + length, sizeof(document) - (size_t)length,
             "],\"cameraCode\":\"C1\",\"datatime\":\"2024-05-17 08:30:00\",\"offset\":%d,\"securityCode\":\"K1\","
             "\"startIndex\":%d,\"taskID\":\"T1\"}",
             PAGE_SIZE, start);
    return post(curl, RESULT_PATH, document, NULL);
}

/* What is counted; known by its name outside. */
__attribute__((noinline)) int libcurl_page(CURL* curl, int start);
int libcurl_page(CURL* curl, int start)
{
    return fetch_page(curl, start) && report_page(curl, start);
}

static CURL* prepare(struct curl_slist* headers)
{
    CURL* curl = curl_easy_init();
    if (curl == NULL) {
        return NULL;
    }
    curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers);
    curl_easy_setopt(curl, CURLOPT_SSLVERSION, (long)CURL_SSLVERSION_TLSv1_2 | (long)CURL_SSLVERSION_MAX_TLSv1_2);
    curl_easy_setopt(curl, CURLOPT_SSL_CIPHER_LIST, CIPHERS);
    curl_easy_setopt(curl, CURLOPT_SSL_VERIFYPEER, 0L);
    curl_easy_setopt(curl, CURLOPT_SSL_VERIFYHOST, 0L);
    curl_easy_setopt(curl, CURLOPT_SSL_SESSIONID_CACHE, 0L);
    curl_easy_setopt(curl, CURLOPT_FORBID_REUSE, 1L);
    curl_easy_setopt(curl, CURLOPT_HTTP_VERSION, (long)CURL_HTTP_VERSION_1_1);
    return curl;
}

static long long processor_time(void)
{
    struct timespec now;
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return now.tv_sec * 1000000000LL + now.tv_nsec;
}

static long page_faults(void)
{
    struct rusage used;
    getrusage(RUSAGE_SELF, &used);
    return used.ru_minflt;
}

int main(void)
{
    const char* pages = getenv("PAGES");
    const int end = (pages != NULL ? atoi(pages) : 1) * PAGE_SIZE;
    curl_global_init(CURL_GLOBAL_DEFAULT);
    struct curl_slist* headers = curl_slist_append(NULL, "Content-Type: application/json;charset=UTF-8");
    headers = curl_slist_append(headers, "Accept: application/json;charset=UTF-8");
    CURL* curl = prepare(headers);
    long long time_before = 0;
    long faults_before = 0;
    for (int start = 0; start < end; start += PAGE_SIZE) {
        if (curl == NULL || !libcurl_page(curl, start)) {
            fprintf(stderr, "page %d failed\n", start);
            return 1;
        }
        if (start == 0) {
            time_before = processor_time();
            faults_before = page_faults();
        }
    }
    printf("%g %ld\n", (double)(processor_time() - time_before) / 1e6, page_faults() - faults_before);
    curl_easy_cleanup(curl);
    curl_slist_free_all(headers);
    curl_global_cleanup();
    return 0;
}
