#include "settings.h"

#include "guards.h"
#include "report.h"

#include <kt/rest.h>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>

namespace {

constexpr char default_address[] = "127.0.0.1:8080";
constexpr size_t token_max_bytes = 4096;
constexpr size_t pem_max_bytes = size_t{256} * 1024;

const char *setting(const char *name) {
    const char *value = getenv(name);
    return value && *value ? value : nullptr;
}

/** A file that a variable names. */
struct named_file {
    const char *variable;
    const char *path;
    size_t max_bytes;
    bool secret;
};

// Opening must not wait for the other end of a pipe.
int open_file(const named_file &file, unique_fd &out) {
    struct stat info;
    unique_fd fd(open(file.path, O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    if (!fd || fstat(fd.get(), &info) != 0) {
        report("%s: cannot read %s: %s", file.variable, file.path, strerror(errno));
        return REST_BAD_SETTING;
    }
    if (!S_ISREG(info.st_mode)) {
        report("%s: %s is not a regular file", file.variable, file.path);
        return REST_BAD_SETTING;
    }
    if (file.secret && (info.st_mode & S_IRWXO)) {
        report("%s: %s is open to others (mode %03o); take their rights away",
               file.variable,
               file.path,
               info.st_mode & 0777u);
        return REST_BAD_SETTING;
    }
    out = std::move(fd);
    return REST_OK;
}

int read_file(const named_file &file, std::string &text) {
    unique_fd fd;
    if (open_file(file, fd) != REST_OK) {
        return REST_BAD_SETTING;
    }
    text.resize(file.max_bytes + 1);
    size_t length = 0;
    for (ssize_t got = 1; got > 0 && length < text.size();) {
        got = read(fd.get(), text.data() + length, text.size() - length);
        if (got < 0 && errno == EINTR) {
            got = 1;
            continue;
        }
        if (got < 0) {
            report("%s: cannot read %s: %s", file.variable, file.path, strerror(errno));
            return REST_BAD_SETTING;
        }
        length += static_cast<size_t>(got);
    }
    if (length == 0 || length > file.max_bytes) {
        const char *what = length == 0 ? "empty" : "too large";
        report("%s: %s is %s", file.variable, file.path, what);
        return REST_BAD_SETTING;
    }
    text.resize(length);
    return REST_OK;
}

int read_token(rest_settings &out) {
    const char *path = setting("KT_REST_TOKEN_FILE");
    if (!path) {
        return REST_OK;
    }
    const named_file file = {"KT_REST_TOKEN_FILE", path, token_max_bytes, true};
    if (read_file(file, out.token) != REST_OK) {
        return REST_BAD_SETTING;
    }
    out.token.resize(out.token.find_last_not_of("\r\n") + 1);
    if (out.token.empty()) {
        report("%s: %s is empty", file.variable, path);
        return REST_BAD_SETTING;
    }
    for (const char c : out.token) {
        if (c <= ' ' || c > '~') {
            report("%s: %s must hold one line of visible ASCII", file.variable, path);
            return REST_BAD_SETTING;
        }
    }
    return REST_OK;
}

int read_tls(rest_settings &out) {
    const char *certificate = setting("KT_REST_TLS_CERT");
    const char *key = setting("KT_REST_TLS_KEY");
    if (!certificate && !key) {
        return REST_OK;
    }
    if (!certificate || !key) {
        report("KT_REST_TLS_CERT and KT_REST_TLS_KEY need each other: %s is missing",
               certificate ? "KT_REST_TLS_KEY" : "KT_REST_TLS_CERT");
        return REST_BAD_SETTING;
    }
    const named_file certificate_file = {"KT_REST_TLS_CERT", certificate, pem_max_bytes, false};
    const named_file key_file = {"KT_REST_TLS_KEY", key, pem_max_bytes, true};
    const int result = read_file(certificate_file, out.certificate);
    return result == REST_OK ? read_file(key_file, out.key) : result;
}

int read_address(rest_settings &out) {
    const char *chosen = setting("KT_REST_LISTEN");
    const char *text = chosen ? chosen : default_address;
    if (address_parse(text, out.address) != 0) {
        report("KT_REST_LISTEN: \"%s\" is not HOST:PORT with an address as HOST", text);
        return REST_BAD_SETTING;
    }
    const char *insecure = setting("KT_REST_ALLOW_INSECURE");
    const bool permitted = insecure && strcmp(insecure, "1") == 0;
    if (!address_is_loopback(out.address) && out.token.empty() && !permitted) {
        report("refusing to listen on %s for everybody: set KT_REST_TOKEN_FILE, or "
               "KT_REST_ALLOW_INSECURE=1 if the network is to be trusted",
               text);
        return REST_BAD_SETTING;
    }
    return REST_OK;
}

} // namespace

int settings_read(rest_settings &out) {
    for (const auto &step : {read_token, read_tls, read_address}) {
        const int result = step(out);
        if (result != REST_OK) {
            return result;
        }
    }
    return REST_OK;
}
