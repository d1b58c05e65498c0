#ifndef KT_TOOLS_TAG_CLIENT_H
#define KT_TOOLS_TAG_CLIENT_H

#include <kt/dx_client.h>

#include <memory>

struct close_client {
    void operator()(dx_client *client) const noexcept { dx_client_close(client); }
};
using tag_client_ptr = std::unique_ptr<dx_client, close_client>;

/** As dx_client_open(). @param[out] client  empty unless DX_OK */
int open_client(tag_client_ptr &client);

/** What a result means wherever it comes up; nullptr for those that each program words itself. */
const char *client_result_text(int code);

#endif
