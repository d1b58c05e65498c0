#include "tag_client.h"

int open_client(tag_client_ptr &client) {
    dx_client *opened = nullptr;
    const int code = dx_client_open(&opened);
    client.reset(opened);
    return code;
}

const char *client_result_text(int code) {
    switch (code) {
    case DX_UNKNOWN_TAG:
        return "unknown tag";
    case DX_IS_READ_ONLY:
        return "tag is read-only";
    case DX_WRONG_SIZE:
        return "the size of the tag has changed";
    case DX_PROVIDER_DEAD:
        return "the provider of the tag has died";
    case DX_STORE_REFUSED:
        return "the tag store cannot be used";
    default:
        return nullptr;
    }
}
