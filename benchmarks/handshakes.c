/*
 * The handshakes of downloads as a platform sees them, both ends in one process and no network between: TLS 1.2, the
 * camera's ciphers, a certificate with the key of a file, session tickets.
 *
 * usage: handshakes KEY.pem FULL RESUMED      makes so many of each
 */
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <stdio.h>
#include <stdlib.h>

static const char CIPHERS[] =
    "ALL:!DH:!aNULL:!eNULL:!SEED-SHA:!CAMELLIA128-SHA:!CAMELLIA256-SHA:!IDEA-CBC-SHA:!RC4:!AES256-SHA:!AES128-SHA:"
    "!DES-CBC3-SHA";

enum { CERTIFICATE_SECONDS = 86400 };

static SSL_CTX* make_platform(const char* path)
{
    FILE* file = fopen(path, "r");
    if (file == NULL) {
        return NULL;
    }
    EVP_PKEY* key = PEM_read_PrivateKey(file, NULL, NULL, NULL);
    fclose(file);
    X509* certificate = X509_new();
    SSL_CTX* context = SSL_CTX_new(TLS_server_method());
    if (key == NULL || certificate == NULL || context == NULL) {
        return NULL;
    }
    X509_gmtime_adj(X509_getm_notBefore(certificate), 0);
    X509_gmtime_adj(X509_getm_notAfter(certificate), CERTIFICATE_SECONDS);
    X509_set_pubkey(certificate, key);
    if (X509_sign(certificate, key, EVP_sha256()) == 0 || SSL_CTX_use_certificate(context, certificate) != 1 ||
        SSL_CTX_use_PrivateKey(context, key) != 1) {
        return NULL;
    }
    X509_free(certificate);
    EVP_PKEY_free(key);
    return context;
}

static SSL_CTX* make_camera(void)
{
    SSL_CTX* context = SSL_CTX_new(TLS_client_method());
    if (context != NULL && (SSL_CTX_set_max_proto_version(context, TLS1_2_VERSION) != 1 ||
                            SSL_CTX_set_cipher_list(context, CIPHERS) != 1)) {
        return NULL;
    }
    return context;
}

/* What is counted, with all below it; known by its name outside. */
__attribute__((noinline)) int platform_step(SSL* platform);
int platform_step(SSL* platform)
{
    return SSL_do_handshake(platform);
}

/* Takes the session of the first handshake, resumes it when there is one. */
static int shake_hands(SSL_CTX* platform_context, SSL_CTX* camera_context, SSL_SESSION** session)
{
    BIO* platform_end = NULL;
    BIO* camera_end = NULL;
    SSL* platform = SSL_new(platform_context);
    SSL* camera = SSL_new(camera_context);
    if (platform == NULL || camera == NULL || BIO_new_bio_pair(&platform_end, 0, &camera_end, 0) != 1) {
        return 0;
    }
    SSL_set_bio(platform, platform_end, platform_end);
    SSL_set_bio(camera, camera_end, camera_end);
    SSL_set_accept_state(platform);
    SSL_set_connect_state(camera);
    const int resuming = *session != NULL;
    if (resuming) {
        SSL_set_session(camera, *session);
    }
    int there = 0;
    for (int step = 0; step < 8 && there != 2; ++step) {
        there = (SSL_do_handshake(camera) == 1) + (platform_step(platform) == 1);
    }
    if (!resuming) {
        *session = SSL_get1_session(camera);
    }
    const int done = there == 2 && SSL_session_reused(camera) == resuming;
    /* A session whose connection did not end properly is not resumed. */
    SSL_set_shutdown(camera, SSL_SENT_SHUTDOWN | SSL_RECEIVED_SHUTDOWN);
    SSL_set_shutdown(platform, SSL_SENT_SHUTDOWN | SSL_RECEIVED_SHUTDOWN);
    SSL_free(camera);
    SSL_free(platform);
    return done;
}

int main(int argc, char** argv)
{
    if (argc != 4) {
        return 2;
    }
    SSL_CTX* platform = make_platform(argv[1]);
    SSL_CTX* camera = make_camera();
    if (platform == NULL || camera == NULL) {
        return 1;
    }
    SSL_SESSION* session = NULL;
    for (int left = atoi(argv[2]); left > 0; --left) {
        SSL_SESSION_free(session);
        session = NULL;
        if (!shake_hands(platform, camera, &session)) {
            return 1;
        }
    }
    for (int left = atoi(argv[3]); left > 0; --left) {
        if (!shake_hands(platform, camera, &session)) {
            return 1;
        }
    }
    SSL_SESSION_free(session);
    SSL_CTX_free(camera);
    SSL_CTX_free(platform);
    return 0;
}
