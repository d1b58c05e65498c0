#ifndef KT_TESTS_FAULT_COUNTDOWN_H
#define KT_TESTS_FAULT_COUNTDOWN_H

/** Counts calls down to the one that has to fail. One thread. */
class fault_countdown {
public:
    /** Let the nth call from now on fail, 1 being the next one, and all later ones when lasting. */
    void arm(int nth, bool lasting = false) {
        left_ = nth;
        lasting_ = lasting;
        failed_ = false;
    }

    /** Count one call. @return whether it has to fail */
    bool fails_now() {
        if (left_ == 0 || --left_ > 0) {
            return false;
        }
        left_ = lasting_ ? 1 : 0;
        failed_ = true;
        return true;
    }

    /** @return whether a call has failed since arm() */
    bool disarm() {
        left_ = 0;
        return failed_;
    }

private:
    int left_ = 0;
    bool lasting_ = false;
    bool failed_ = false;
};

/**
 * Call attempt() with the first call failing, then with the second, until none is left.
 * @param arm, disarm  of the faults
 * @param check  called with the result and the number of the failed call
 * @return number of calls that were made to fail
 */
template <typename Attempt, typename Check>
int sweep_faults(void (*arm)(int), bool (*disarm)(), Attempt attempt, Check check) {
    for (int nth = 1;; nth++) {
        arm(nth);
        const auto result = attempt();
        if (!disarm()) {
            return nth - 1;
        }
        check(result, nth);
    }
}

#endif
