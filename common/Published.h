#pragma once
/// @file
/// A process-wide table that is filled aside and taken into use as a whole: who asks meanwhile, or still holds what he
/// got, sees the old one or the new one, never a half.

#include <pthread.h>

#include <memory>
#include <mutex>
#include <utility>

/// Lives in static storage and is not destroyed at exit, when threads may still ask.
template <typename T>
class Published {
public:
    /// What the calling thread is filling, else what everybody sees. Never null; keep it for as long as it is used.
    std::shared_ptr<T> Get() {
        const std::lock_guard lock(mutex_);
        if (tables_ == nullptr) tables_ = new Tables;
        if (tables_->filling != nullptr && pthread_equal(filler_, pthread_self()) != 0) return tables_->filling;
        return tables_->current;
    }
    /// The calling thread fills an empty one from now on. One thread at a time.
    void Begin() {
        auto fresh = std::make_shared<T>();
        const std::lock_guard lock(mutex_);
        if (tables_ == nullptr) tables_ = new Tables;
        tables_->filling = std::move(fresh);
        filler_ = pthread_self();
    }
    /// Everybody sees what was filled.
    void Publish() {
        std::shared_ptr<T> old;  // freed behind the lock
        const std::lock_guard lock(mutex_);
        if (tables_ == nullptr || tables_->filling == nullptr) return;
        old = std::exchange(tables_->current, std::exchange(tables_->filling, nullptr));
    }
    /// What was filled is forgotten.
    void Abandon() {
        std::shared_ptr<T> old;
        const std::lock_guard lock(mutex_);
        if (tables_ != nullptr) old = std::exchange(tables_->filling, nullptr);
    }

private:
    struct Tables {
        std::shared_ptr<T> current = std::make_shared<T>();
        std::shared_ptr<T> filling;
    };

    std::mutex mutex_;  // guards the two below
    Tables* tables_ = nullptr;
    pthread_t filler_{};
};
