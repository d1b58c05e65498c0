#ifndef KT_FILE_NAME_H
#define KT_FILE_NAME_H

// Whether an open file still has a name, not whether it is the one that it was opened by.
bool has_name(int fd);

#endif
