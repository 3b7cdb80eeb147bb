#pragma once
/// @file
/// Finds out whether two conversations with the BMC run at once, in one process or in several.

#include <atomic>
#include <cstdint>
#include <memory>

namespace sim {

/// A conversation lasts from the opening of the IPMI device to its closing. The marker may live in memory that forked
/// processes share. A holder that died counts as gone.
class ConversationMarker {
public:
    /// Begins. An other conversation under way, of this or another living process, counts as an overlap.
    void Begin();
    void End();

    uint32_t Overlaps() const { return overlaps_; }
    uint32_t Conversations() const { return conversations_; }
    /// Counts a command that was sent while the answer of another one was still to be taken.
    void NoteOverlap() { ++overlaps_; }

    struct Unmap {
        void operator()(ConversationMarker* marker) const;
    };
    using Shared = std::unique_ptr<ConversationMarker, Unmap>;
    /// A marker in memory that children of this process share. @throws std::system_error
    static Shared MakeShared();

private:
    std::atomic<int32_t> holder_{0};  // process id, 0: nobody
    std::atomic<uint32_t> overlaps_{0};
    std::atomic<uint32_t> conversations_{0};
};

}  // namespace sim
