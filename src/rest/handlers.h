#ifndef KT_REST_HANDLERS_H
#define KT_REST_HANDLERS_H

#include <cstddef>

/*
 * The REST handlers, one per endpoint.
 *
 * Each is called by the REST library with the full request URI and the body as text, nullptr
 * without one; writes its answer and returns the HTTP status. Any thread, also several at a time.
 */

int can_proprietary_rest_get_interface_config(const char *uri, const char *body, size_t length);
int can_proprietary_rest_patch_interface_config(const char *uri, const char *body, size_t length);
int can_proprietary_post_rest_action(const char *uri, const char *body, size_t length);
int can_proprietary_rest_get_device_config(const char *uri, const char *body, size_t length);
int can_proprietary_rest_post_device_config(const char *uri, const char *body, size_t length);
int can_proprietary_rest_post_transaction_config(const char *uri, const char *body, size_t length);
int can_proprietary_rest_patch_transaction_config(const char *uri, const char *body, size_t length);
int can_proprietary_rest_put_frame_config(const char *uri, const char *body, size_t length);
int can_proprietary_rest_patch_device_name_config(const char *uri, const char *body, size_t length);
int can_proprietary_rest_get_overview_config(const char *uri, const char *body, size_t length);
int can_proprietary_rest_delete_device_config(const char *uri, const char *body, size_t length);
int can_proprietary_rest_delete_transaction_config(const char *uri,
                                                   const char *body,
                                                   size_t length);
int can_proprietary_rest_get_config_change(const char *uri, const char *body, size_t length);
int can_proprietary_rest_get_usedCANIds_config(const char *uri, const char *body, size_t length);
int can_proprietary_rest_post_traffic_log(const char *uri, const char *body, size_t length);
int can_proprietary_rest_get_traffic_log(const char *uri, const char *body, size_t length);
int can_proprietary_rest_export_traffic_csv(const char *uri, const char *body, size_t length);
int can_proprietary_rest_get_diagnose(const char *uri, const char *body, size_t length);
int can_proprietary_rest_post_config_file(const char *uri, const char *body, size_t length);
int can_proprietary_rest_get_config_file(const char *uri, const char *body, size_t length);

#endif
