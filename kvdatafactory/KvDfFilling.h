#pragma once
/// @file
/// All tables of the data factory, filled aside by one thread at a time.

#include <mutex>

/// For its scope, what the calling thread analyses goes into empty tables that nobody else sees.
class KvDfFilling {
public:
    KvDfFilling();
    ~KvDfFilling();
    KvDfFilling(const KvDfFilling&) = delete;
    KvDfFilling& operator=(const KvDfFilling&) = delete;

    /// Everybody sees them from now on. Without it they are forgotten.
    void Publish();

private:
    std::lock_guard<std::mutex> alone_;
};
