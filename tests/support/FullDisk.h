#pragma once
/// @file
/// A disk on which nothing more fits.

#include <signal.h>
#include <sys/resource.h>

/// For its scope, no write of this process succeeds; files can be made, and stay empty.
class FullDisk {
public:
    FullDisk() {
        signal(SIGXFSZ, SIG_IGN);
        getrlimit(RLIMIT_FSIZE, &before_);
        const rlimit full{0, before_.rlim_max};
        setrlimit(RLIMIT_FSIZE, &full);
    }
    ~FullDisk() { setrlimit(RLIMIT_FSIZE, &before_); }
    FullDisk(const FullDisk&) = delete;
    FullDisk& operator=(const FullDisk&) = delete;

private:
    rlimit before_{};
};
