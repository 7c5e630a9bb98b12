// A platform: serves the .jpg files of a folder as pages of faces over HTTPS, and takes the reports.
//
// usage: node platform.js PORT CERTIFICATE KEY FOLDER
'use strict';
const fs = require('fs');
const https = require('https');
const path = require('path');

if (process.argv.length !== 6) {
    console.error('usage: node platform.js PORT CERTIFICATE KEY FOLDER');
    process.exit(2);
}
const [port, certificate, key, folder] = process.argv.slice(2);
const faces = fs.readdirSync(folder).filter(name => name.endsWith('.jpg')).sort();

// The records that a camera asks for, as far as there are pictures. The number is what it reports back.
function page(asked) {
    const {startIndex: start, offset: count} = asked;
    if (!Number.isInteger(start) || !Number.isInteger(count)) throw new TypeError('no range of records');
    console.log(`page: ${count} records, from ${start}`);
    const records = faces.slice(start, start + count).map((name, number) => ({
        credentialNumber: String(start + number),
        name: path.parse(name).name,
        picture: fs.readFileSync(path.join(folder, name)).toString('base64'),
    }));
    return {records};
}

// What became of each picture of a page: 0 is imported.
function result(report) {
    const imported = report.ImportInfo.filter(one => one.importStatus === 0).length;
    console.log(`report: ${imported} of ${report.ImportInfo.length} imported, from ${report.startIndex}`);
    return {result: 'ok'};
}

const answers = new Map([['POST /faces/page', page], ['POST /faces/result', result]]);
const pair = {cert: fs.readFileSync(certificate), key: fs.readFileSync(key)};

https.createServer(pair, (request, response) => {
    const answer = answers.get(`${request.method} ${request.url}`);
    const parts = [];
    request.on('data', part => parts.push(part)).on('end', () => {
        let status = answer ? 200 : 404;
        let body = '';
        try {
            body = answer ? JSON.stringify(answer(JSON.parse(Buffer.concat(parts)))) : '';
        } catch (error) {
            status = 400;
        }
        response.writeHead(status, {'Content-Length': Buffer.byteLength(body)}).end(body);
    });
}).listen(Number(port), () => {
    console.log(`the platform is up: https://localhost:${port}/faces/page, ${faces.length} faces`);
});
