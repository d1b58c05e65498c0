#ifndef KT_DX_REGISTRATION_H
#define KT_DX_REGISTRATION_H

#include "store_file.h"

namespace kt_dx {

inline constexpr int registration_timeout_ms = 2000;

/** Initialise the process-shared robust mutex of a new file; 0 or negative errno. */
int init_registration_mutex(pthread_mutex_t &mutex);

/**
 * Holds the registration mutex of a store. When its last owner died in the middle of a change, the
 * index was rebuilt before the constructor returned.
 */
class registration {
public:
    /** Gives up after timeout_ms, so that a damaged lock is an error and not a hang. */
    explicit registration(const store &locked, int timeout_ms = registration_timeout_ms);
    ~registration();
    registration(const registration &) = delete;
    registration &operator=(const registration &) = delete;

    /** 0 when held, else a negative errno. */
    int code() const { return code_; }

private:
    const store &store_;
    int code_;
};

} // namespace kt_dx

#endif
