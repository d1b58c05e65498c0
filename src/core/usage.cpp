#include "core/usage.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string_view>

namespace {

constexpr const char *version_text = "kt-can-proprietary " KT_VERSION "\n";

constexpr const char *help_text =
    R"(Usage: kt-can-proprietary

Bridge between CAN devices with a user-defined protocol and the rest of the
plant. Runs until SIGTERM, SIGINT or SIGQUIT; takes no arguments but these:

  --help, -h    print this text
  --version     print name and version

Environment:
  KT_CANOPEN_XLOG_USER_LEVEL  level of the log (WARN); OFF silences it
  KT_CAN_PORTS                CAN ports in their order, as can0,can1; else all
  KT_REST_LISTEN              address of the REST API (127.0.0.1:8080)
  KT_REST_TOKEN_FILE          file with the token that requests must bear
  KT_REST_TLS_CERT            certificate for HTTPS, with its key in
  KT_REST_TLS_KEY
  KT_REST_ALLOW_INSECURE      1 permits no token beyond loopback
  KT_LED                      LED class device of the service LED
  KT_ROOT                     prefix of every path

Exit status: 0 after a signal, 255 when the configuration cannot be prepared.
Example:     KT_CAN_PORTS=can0 kt-can-proprietary
Manual:      kt-can-proprietary(8)
)";

} // namespace

int answer_usage(int argc, const char *const *argv) {
    const std::string_view asked = argc == 2 ? argv[1] : "";
    const bool wants_version = asked == "--version";
    if (!wants_version && asked != "--help" && asked != "-h") {
        return -1;
    }
    if (fputs(wants_version ? version_text : help_text, stdout) >= 0 && fflush(stdout) == 0) {
        return 0;
    }
    (void)fprintf(stderr, "kt-can-proprietary: standard output: %s\n", strerror(errno));
    return 1;
}
