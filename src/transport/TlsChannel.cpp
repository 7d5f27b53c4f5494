// SPDX-License-Identifier: Apache-2.0
#include "transport/TlsChannel.h"

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstring>
#include <vector>

namespace tavren {
namespace internal {

namespace {

// A record's worth: pieces of a frame are gathered up to this much, so
// that a frame of many pieces leaves in few records.
const size_t kRecordSize = 16 * 1024;

// The socket under TLS is driven like SocketIo drives a plain one: every
// send and receive with MSG_DONTWAIT, whatever the descriptor's blocking
// flag, and sends with MSG_NOSIGNAL, so that a peer that went away yields
// EPIPE and never SIGPIPE. OpenSSL's own socket BIO would do neither.
int bioDescriptor(BIO* bio) { return static_cast<int>(reinterpret_cast<intptr_t>(BIO_get_data(bio))); }

int bioWrite(BIO* bio, const char* data, int length) {
    BIO_clear_retry_flags(bio);
    for (;;) {
        const ssize_t sent = ::send(bioDescriptor(bio), data, static_cast<size_t>(length), MSG_DONTWAIT | MSG_NOSIGNAL);
        if (sent >= 0) return static_cast<int>(sent);
        if (errno == EINTR) continue;
        if (errno == EAGAIN || errno == EWOULDBLOCK) BIO_set_retry_write(bio);
        return -1;
    }
}

int bioRead(BIO* bio, char* data, int length) {
    BIO_clear_retry_flags(bio);
    for (;;) {
        const ssize_t got = ::recv(bioDescriptor(bio), data, static_cast<size_t>(length), MSG_DONTWAIT);
        if (got >= 0) return static_cast<int>(got);
        if (errno == EINTR) continue;
        if (errno == EAGAIN || errno == EWOULDBLOCK) BIO_set_retry_read(bio);
        return -1;
    }
}

long bioControl(BIO*, int command, long, void*) {
    // Nothing is buffered here: a flush has nothing to do.
    return command == BIO_CTRL_FLUSH ? 1 : 0;
}

int bioCreate(BIO* bio) {
    BIO_set_init(bio, 1);
    return 1;
}

BIO_METHOD* socketMethod() {
    // Made once for the process and kept for its life.
    static BIO_METHOD* method = [] {
        BIO_METHOD* m = BIO_meth_new(BIO_get_new_index() | BIO_TYPE_SOURCE_SINK, "tavren socket");
        if (m) {
            BIO_meth_set_write(m, bioWrite);
            BIO_meth_set_read(m, bioRead);
            BIO_meth_set_ctrl(m, bioControl);
            BIO_meth_set_create(m, bioCreate);
        }
        return m;
    }();
    return method;
}

// A key protected by a passphrase must never make OpenSSL ask for one on
// the terminal: the device has nobody to answer. It fails to load instead.
int noPassphrase(char*, int, int, void*) { return 0; }

// OpenSSL's last error on this thread, as text; the queue is emptied.
std::string takeOpenSslError() {
    unsigned long code = ERR_peek_last_error();
    ERR_clear_error();
    if (code == 0) return "";
    char text[256];
    ERR_error_string_n(code, text, sizeof text);
    return text;
}

std::string withReason(const std::string& what) {
    const std::string reason = takeOpenSslError();
    return reason.empty() ? what : what + ": " + reason;
}

bool isAddress(const std::string& name) {
    unsigned char buffer[sizeof(struct in6_addr)];
    return inet_pton(AF_INET, name.c_str(), buffer) == 1 || inet_pton(AF_INET6, name.c_str(), buffer) == 1;
}

// Waits for the socket as OpenSSL asked (readable or writable) within the deadline.
apr_status_t waitAsAsked(int fd, int sslError, const SocketIo::Deadline& deadline) {
    return SocketIo::waitFor(fd, sslError == SSL_ERROR_WANT_WRITE ? POLLOUT : POLLIN, deadline);
}

SocketIo::Deadline deadlineAt(apr_time_t end) {
    const apr_time_t left = end - apr_time_now();
    return SocketIo::Deadline::fromTimeout(left > 0 ? left : 1);
}

} // namespace

struct TlsChannel::State {
    SSL_CTX* context = nullptr;
    SSL* ssl = nullptr;
    int fd = -1;
    std::vector<char> gathered; // pieces of a frame joined for one write

    ~State() {
        if (ssl) SSL_free(ssl); // frees the BIO too
        if (context) SSL_CTX_free(context);
    }

    // The status of a failed call, for OpenSSL's error e; errno as the call left it.
    apr_status_t failure(int e, int savedErrno) {
        if (e == SSL_ERROR_ZERO_RETURN) return APR_EOF;
        if (e == SSL_ERROR_SYSCALL) return savedErrno ? savedErrno : APR_EOF;
        // A fault of TLS itself: the broker's alert (a refused client
        // certificate, say) or a record that does not decrypt.
        const unsigned long code = ERR_peek_last_error();
        const char* reason = code ? ERR_reason_error_string(code) : nullptr;
        error = reason ? reason : "a TLS protocol error";
        ERR_clear_error();
        return EPROTO;
    }

    std::string error; // why the last call failed with EPROTO

    apr_status_t writeWhole(const char* data, size_t length, apr_interval_time_t timeout);
};

TlsChannel::TlsChannel(std::unique_ptr<State> s) : state(std::move(s)) {}

TlsChannel::~TlsChannel() {}

std::unique_ptr<TlsChannel> TlsChannel::open(int fd, const tavren::TlsOptions& options, const std::string& host,
                                             apr_time_t end, std::string* why, apr_status_t* status) {
    ERR_clear_error();
    std::unique_ptr<State> s(new State());
    s->fd = fd;
    *status = EPROTO;
    s->context = SSL_CTX_new(TLS_client_method());
    BIO_METHOD* method = socketMethod();
    if (!s->context || !method) {
        *why = withReason("TLS could not be set up");
        return nullptr;
    }
    SSL_CTX_set_min_proto_version(s->context, TLS1_2_VERSION);
    // A write may go out in parts, each retried from where it stopped; a
    // broker that closes without TLS's closing alert has simply closed.
    SSL_CTX_set_mode(s->context, SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
#ifdef SSL_OP_IGNORE_UNEXPECTED_EOF
    SSL_CTX_set_options(s->context, SSL_OP_IGNORE_UNEXPECTED_EOF);
#endif
    SSL_CTX_set_default_passwd_cb(s->context, noPassphrase);

    if (options.verifyPeer) {
        const bool loaded = options.caFile.empty()
                                ? SSL_CTX_set_default_verify_paths(s->context) == 1
                                : SSL_CTX_load_verify_locations(s->context, options.caFile.c_str(), nullptr) == 1;
        if (!loaded) {
            *why = withReason(options.caFile.empty() ? "TLS: the system's CA store could not be loaded"
                                                     : "TLS: the CA file " + options.caFile + " could not be loaded");
            return nullptr;
        }
        SSL_CTX_set_verify(s->context, SSL_VERIFY_PEER, nullptr);
    } else {
        SSL_CTX_set_verify(s->context, SSL_VERIFY_NONE, nullptr);
    }
    if (!options.certificateFile.empty()) {
        const std::string& keyFile = options.privateKeyFile.empty() ? options.certificateFile : options.privateKeyFile;
        if (SSL_CTX_use_certificate_chain_file(s->context, options.certificateFile.c_str()) != 1) {
            *why = withReason("TLS: the certificate file " + options.certificateFile + " could not be loaded");
            return nullptr;
        }
        // The key's own text never appears in a reason: only its file's name.
        if (SSL_CTX_use_PrivateKey_file(s->context, keyFile.c_str(), SSL_FILETYPE_PEM) != 1 ||
            SSL_CTX_check_private_key(s->context) != 1) {
            *why = withReason("TLS: the private key file " + keyFile + " could not be loaded");
            return nullptr;
        }
    }

    s->ssl = SSL_new(s->context);
    BIO* bio = s->ssl ? BIO_new(method) : nullptr;
    if (!bio) {
        *why = withReason("TLS could not be set up");
        return nullptr;
    }
    BIO_set_data(bio, reinterpret_cast<void*>(static_cast<intptr_t>(fd)));
    SSL_set_bio(s->ssl, bio, bio);

    const std::string& name = options.serverName.empty() ? host : options.serverName;
    const bool address = isAddress(name);
    // An address is never sent as a server name, but verified as an address.
    if (!address) SSL_set_tlsext_host_name(s->ssl, name.c_str());
    if (options.verifyPeer) {
        // "*.example.com" matches "a.example.com", but "b*.example.com" matches nothing.
        SSL_set_hostflags(s->ssl, X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS);
        const int set = address ? X509_VERIFY_PARAM_set1_ip_asc(SSL_get0_param(s->ssl), name.c_str())
                                : SSL_set1_host(s->ssl, name.c_str());
        if (set != 1) {
            *why = withReason("TLS: the name " + name + " cannot be verified");
            return nullptr;
        }
    }

    const SocketIo::Deadline deadline = deadlineAt(end);
    for (;;) {
        ERR_clear_error();
        errno = 0;
        const int rc = SSL_connect(s->ssl);
        if (rc == 1) break;
        const int savedErrno = errno;
        const int e = SSL_get_error(s->ssl, rc);
        if (e == SSL_ERROR_WANT_READ || e == SSL_ERROR_WANT_WRITE) {
            const apr_status_t waited = waitAsAsked(fd, e, deadline);
            if (waited != APR_SUCCESS) {
                // Out of time: reported as a connect that timed out.
                *status = waited;
                return nullptr;
            }
            continue;
        }
        const long verified = SSL_get_verify_result(s->ssl);
        if (verified != X509_V_OK) {
            ERR_clear_error();
            *why = std::string("TLS handshake failed: certificate verify failed: ") +
                   X509_verify_cert_error_string(verified);
        } else if (e == SSL_ERROR_SYSCALL || e == SSL_ERROR_ZERO_RETURN) {
            const std::string reason = takeOpenSslError();
            *why = "TLS handshake failed: " + (!reason.empty() ? reason
                                               : savedErrno    ? std::string(strerror(savedErrno))
                                                               : std::string("the broker closed the connection"));
        } else {
            *why = withReason("TLS handshake failed");
        }
        *status = s->failure(e, savedErrno);
        return nullptr;
    }
    *status = APR_SUCCESS;
    return std::unique_ptr<TlsChannel>(new TlsChannel(std::move(s)));
}

apr_status_t TlsChannel::State::writeWhole(const char* data, size_t length, apr_interval_time_t timeout) {
    SocketIo::Deadline deadline = SocketIo::Deadline::fromTimeout(timeout);
    size_t done = 0;
    while (done < length) {
        ERR_clear_error();
        errno = 0;
        size_t written = 0;
        // After a retry is asked for, the same bytes are written again.
        if (SSL_write_ex(ssl, data + done, length - done, &written) == 1) {
            done += written;
            // Progress: the peer gets the whole time-out again for the rest.
            deadline = SocketIo::Deadline::fromTimeout(timeout);
            continue;
        }
        const int savedErrno = errno;
        const int e = SSL_get_error(ssl, 0);
        if (e == SSL_ERROR_WANT_READ || e == SSL_ERROR_WANT_WRITE) {
            if (!deadline.mayWait()) return EAGAIN;
            const apr_status_t rc = waitAsAsked(fd, e, deadline);
            if (rc != APR_SUCCESS) return rc;
            continue;
        }
        return failure(e, savedErrno ? savedErrno : EPIPE);
    }
    return APR_SUCCESS;
}

apr_status_t TlsChannel::sendAll(struct iovec* iov, int count, apr_interval_time_t timeout) {
    // One piece goes out as it is; several are gathered record by record.
    if (count == 1) return state->writeWhole(static_cast<const char*>(iov->iov_base), iov->iov_len, timeout);
    std::vector<char>& buffer = state->gathered;
    buffer.reserve(kRecordSize);
    int i = 0;
    size_t offset = 0;
    while (i < count) {
        buffer.clear();
        while (i < count && buffer.size() < kRecordSize) {
            const char* from = static_cast<const char*>(iov[i].iov_base) + offset;
            const size_t rest = iov[i].iov_len - offset;
            const size_t take = std::min(rest, kRecordSize - buffer.size());
            buffer.insert(buffer.end(), from, from + take);
            offset += take;
            if (offset == iov[i].iov_len) {
                ++i;
                offset = 0;
            }
        }
        const apr_status_t rc = state->writeWhole(buffer.data(), buffer.size(), timeout);
        if (rc != APR_SUCCESS) return rc;
    }
    return APR_SUCCESS;
}

apr_status_t TlsChannel::receive(char* buffer, size_t length, size_t* received, const SocketIo::Deadline& deadline) {
    *received = 0;
    for (;;) {
        ERR_clear_error();
        errno = 0;
        size_t got = 0;
        if (SSL_read_ex(state->ssl, buffer, length, &got) == 1) {
            *received = got;
            return APR_SUCCESS;
        }
        const int savedErrno = errno;
        const int e = SSL_get_error(state->ssl, 0);
        if (e == SSL_ERROR_WANT_READ || e == SSL_ERROR_WANT_WRITE) {
            if (!deadline.mayWait()) return EAGAIN;
            const apr_status_t rc = waitAsAsked(state->fd, e, deadline);
            if (rc != APR_SUCCESS) return rc;
            continue;
        }
        return state->failure(e, savedErrno);
    }
}

bool TlsChannel::hasPending() const { return SSL_pending(state->ssl) > 0; }

const std::string& TlsChannel::lastError() const { return state->error; }

void TlsChannel::close() {
    // The closing alert, if the socket takes it now; the answer is not awaited.
    ERR_clear_error();
    SSL_shutdown(state->ssl);
    ERR_clear_error();
}

} // namespace internal
} // namespace tavren
