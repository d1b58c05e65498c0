#ifndef KT_REST_FILE_DOWNLOAD_H
#define KT_REST_FILE_DOWNLOAD_H

/**
 * Send a whole file as a download.
 * @param open_message  logged with the path in "%s" when the file cannot be opened
 * @retval 0 @retval -1 failed (logged)
 */
int rest_export_file(const char *path, const char *download_name, const char *open_message);

#endif
