#include "uri_target.h"

#include "always.h"
#include "request.h"

#include <string_view>

void check_target(const std::string &target) {
    size_t bodies = 0;
    rest_request *request = request_new(target.c_str());
    KT_ALWAYS(request != nullptr && target == request->target);
    const auto skipped = static_cast<size_t>(request->uri - request->target);
    const std::string_view authority = request->authority;
    KT_ALWAYS(skipped <= target.size() && target.substr(skipped) == request->uri);
    if (skipped == 0) {
        KT_ALWAYS(authority.empty());
    } else {
        KT_ALWAYS(authority.size() < skipped &&
                  authority.data() + authority.size() == request->uri);
        KT_ALWAYS(authority.find_first_of("/?#") == std::string_view::npos);
        KT_ALWAYS(std::string_view("/?#").find(*request->uri) != std::string_view::npos ||
                  *request->uri == '\0');
    }
    request_free(request, bodies);
}
