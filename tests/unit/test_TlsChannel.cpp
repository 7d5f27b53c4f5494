// SPDX-License-Identifier: Apache-2.0
// TLS over a socket pair against a server in the test (OpenSSL, with a
// certificate made for the test): a verified handshake, bytes both ways
// gathered into records, the closing alert, and the ways it fails.
#include "transport/TlsChannel.h"

#include "support/TempFolder.h"

#include <gtest/gtest.h>

#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <functional>
#include <memory>
#include <string>
#include <thread>

namespace tavren {
namespace test {
namespace {

using internal::SocketIo;
using internal::TlsChannel;

// A key and a certificate for "localhost" signed by itself, written as PEM files.
struct Credentials {
    explicit Credentials(const TempFolder& folder)
        : certificateFile(folder.file("cert.pem")), keyFile(folder.file("key.pem")) {
        key = EVP_EC_gen("P-256");
        certificate = X509_new();
        X509_set_version(certificate, 2);
        ASN1_INTEGER_set(X509_get_serialNumber(certificate), 1);
        X509_gmtime_adj(X509_getm_notBefore(certificate), -60);
        X509_gmtime_adj(X509_getm_notAfter(certificate), 3600);
        X509_NAME* name = X509_get_subject_name(certificate);
        X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, reinterpret_cast<const unsigned char*>("localhost"), -1,
                                   -1, 0);
        X509_set_issuer_name(certificate, name);
        X509_set_pubkey(certificate, key);
        X509V3_CTX context;
        X509V3_set_ctx_nodb(&context);
        X509V3_set_ctx(&context, certificate, certificate, nullptr, nullptr, 0);
        X509_EXTENSION* names = X509V3_EXT_conf_nid(nullptr, &context, NID_subject_alt_name, "DNS:localhost");
        X509_add_ext(certificate, names, -1);
        X509_EXTENSION_free(names);
        X509_sign(certificate, key, EVP_sha256());
        FILE* out = std::fopen(certificateFile.c_str(), "w");
        PEM_write_X509(out, certificate);
        std::fclose(out);
        out = std::fopen(keyFile.c_str(), "w");
        PEM_write_PrivateKey(out, key, nullptr, nullptr, 0, nullptr, nullptr);
        std::fclose(out);
    }
    ~Credentials() {
        X509_free(certificate);
        EVP_PKEY_free(key);
    }
    std::string certificateFile, keyFile;
    EVP_PKEY* key = nullptr;
    X509* certificate = nullptr;
};

// A socket pair: the client's end for TlsChannel, the server's end served
// by a thread that shakes hands and then does what the test asks.
class TlsPair : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds));
        credentials.reset(new Credentials(folder));
        options.caFile = credentials->certificateFile;
    }
    void TearDown() override {
        if (server.joinable()) server.join();
        channel.reset();
        if (fds[0] >= 0) ::close(fds[0]);
        if (fds[1] >= 0) ::close(fds[1]);
    }

    // Serves the server's end: a handshake, then `then` with the server's SSL.
    void serve(std::function<void(SSL*)> then) {
        server = std::thread([this, then] {
            SSL_CTX* context = SSL_CTX_new(TLS_server_method());
            SSL_CTX_use_certificate(context, credentials->certificate);
            SSL_CTX_use_PrivateKey(context, credentials->key);
            SSL* ssl = SSL_new(context);
            SSL_set_fd(ssl, fds[1]);
            if (SSL_accept(ssl) == 1 && then) then(ssl);
            SSL_free(ssl);
            SSL_CTX_free(context);
            ERR_clear_error();
        });
    }

    void open(const std::string& host) {
        channel = TlsChannel::open(fds[0], options, host, apr_time_now() + apr_time_from_sec(10), &why, &status);
    }

    // One receive of up to 16 bytes within 5 s (or without waiting); what came is in `received`.
    apr_status_t receive(bool wait = true) {
        char buffer[16];
        size_t n = 0;
        const apr_status_t rc =
            channel->receive(buffer, sizeof buffer, &n,
                             wait ? SocketIo::Deadline::fromTimeout(apr_time_from_sec(5)) : SocketIo::Deadline::none());
        received.assign(buffer, n);
        return rc;
    }

    TempFolder folder;
    std::string received;
    std::unique_ptr<Credentials> credentials;
    int fds[2] = {-1, -1};
    std::thread server;
    tavren::TlsOptions options;
    std::unique_ptr<TlsChannel> channel;
    std::string why;
    apr_status_t status = -1;
};

TEST_F(TlsPair, AVerifiedHandshakeCarriesBytesBothWaysAndEndsWithTheClosingAlert) {
    std::string got;
    int ending = 0;
    serve([&](SSL* ssl) {
        char buffer[4096];
        size_t n = 0;
        while (got.size() < 40000 && SSL_read_ex(ssl, buffer, sizeof buffer, &n) == 1) got.append(buffer, n);
        SSL_write(ssl, "pong", 4);
        ending = SSL_get_error(ssl, SSL_read_ex(ssl, buffer, sizeof buffer, &n));
    });
    open("localhost");
    ASSERT_TRUE(channel) << why;
    EXPECT_EQ(status, APR_SUCCESS);
    // Three pieces, more than two records' worth, gathered record by record.
    std::string a(10000, 'a'), b(25000, 'b'), c(5000, 'c');
    struct iovec pieces[3] = {{&a[0], a.size()}, {&b[0], b.size()}, {&c[0], c.size()}};
    ASSERT_EQ(APR_SUCCESS, channel->sendAll(pieces, 3, apr_time_from_sec(5)));
    ASSERT_EQ(APR_SUCCESS, receive());
    EXPECT_EQ(received, "pong");
    EXPECT_FALSE(channel->hasPending());
    channel->close();
    server.join();
    EXPECT_EQ(got, a + b + c);
    EXPECT_EQ(ending, SSL_ERROR_ZERO_RETURN);
}

TEST_F(TlsPair, OnePieceGoesOutAsItIs) {
    std::string got;
    serve([&](SSL* ssl) {
        char buffer[64];
        size_t n = 0;
        if (SSL_read_ex(ssl, buffer, sizeof buffer, &n) == 1) got.assign(buffer, n);
    });
    open("localhost");
    ASSERT_TRUE(channel) << why;
    char text[] = "SEND\n\n";
    struct iovec piece = {text, 6};
    EXPECT_EQ(APR_SUCCESS, channel->sendAll(&piece, 1, apr_time_from_sec(5)));
    server.join();
    EXPECT_EQ(got, "SEND\n\n");
}

TEST_F(TlsPair, ABrokerThatClosesAfterTheHandshakeEndsTheStream) {
    serve([](SSL* ssl) { SSL_shutdown(ssl); });
    open("localhost");
    ASSERT_TRUE(channel) << why;
    server.join();
    EXPECT_EQ(APR_EOF, receive());
    EXPECT_EQ(received, "");
}

TEST_F(TlsPair, NothingToReadWithoutWaitingIsEagain) {
    serve(nullptr);
    open("localhost");
    ASSERT_TRUE(channel) << why;
    EXPECT_EQ(EAGAIN, receive(false));
}

TEST_F(TlsPair, ARecordThatDoesNotDecryptIsAProtocolErrorWithOpenSslsReason) {
    serve([this](SSL*) {
        // An application-data record of junk, straight on the socket.
        const std::string junk = std::string("\x17\x03\x03\x00\x20", 5) + std::string(32, 'x');
        ASSERT_EQ(static_cast<ssize_t>(junk.size()), ::send(fds[1], junk.data(), junk.size(), MSG_NOSIGNAL));
    });
    open("localhost");
    ASSERT_TRUE(channel) << why;
    server.join();
    EXPECT_EQ(EPROTO, receive());
    EXPECT_EQ(channel->lastError(), "decryption failed or bad record mac");
}

TEST_F(TlsPair, SendingToABrokerThatWentAwayIsABrokenPipe) {
    serve(nullptr);
    open("localhost");
    ASSERT_TRUE(channel) << why;
    server.join();
    ::close(fds[1]);
    fds[1] = -1;
    char text[] = "SEND\n\n";
    struct iovec piece = {text, 6};
    EXPECT_EQ(EPIPE, channel->sendAll(&piece, 1, apr_time_from_sec(5)));
}

TEST_F(TlsPair, ACertificateForAnotherNameFailsTheHandshakeAndSaysWhy) {
    serve(nullptr);
    open("broker.example");
    EXPECT_FALSE(channel);
    EXPECT_EQ(status, EPROTO);
    EXPECT_EQ(why, "TLS handshake failed: certificate verify failed: hostname mismatch");
}

TEST_F(TlsPair, ACertificateWithoutTheAddressFailsTheHandshakeAndSaysWhy) {
    serve(nullptr);
    open("127.0.0.1");
    EXPECT_FALSE(channel);
    EXPECT_EQ(why, "TLS handshake failed: certificate verify failed: IP address mismatch");
}

TEST_F(TlsPair, AMissingClientCertificateFailsBeforeAnyByteAndNamesTheFile) {
    options.certificateFile = folder.file("missing.pem");
    open("localhost");
    EXPECT_FALSE(channel);
    EXPECT_EQ(status, EPROTO);
    EXPECT_EQ(why.rfind("TLS: the certificate file " + options.certificateFile + " could not be loaded: ", 0), 0u)
        << why;
}

TEST_F(TlsPair, AKeyThatIsNotTheCertificatesFailsAndNamesOnlyItsFile) {
    TempFolder other;
    Credentials stranger(other);
    options.certificateFile = credentials->certificateFile;
    options.privateKeyFile = stranger.keyFile;
    open("localhost");
    EXPECT_FALSE(channel);
    EXPECT_EQ(why.rfind("TLS: the private key file " + stranger.keyFile + " could not be loaded: ", 0), 0u) << why;
    EXPECT_EQ(why.find("PRIVATE KEY"), std::string::npos) << why;
}

} // namespace
} // namespace test
} // namespace tavren
