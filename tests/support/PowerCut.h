#pragma once
/// @file
/// What may be left of the files of a directory when the process or the machine ends in the middle of writing them.
///
/// In a test program that says kv_records_file_calls (tests/CMakeLists.txt) file calls pass through here. While an action is
/// recorded, those below the directory are noted; afterwards every state that a kill or a power cut at any of them may
/// leave is made in the directory, one after the other, and checked.
///
/// A power cut keeps what was synced. Of the rest every combination is tried: each change of a directory done or undone;
/// of each file's writes none, all, all but one, those up to any of them or to the middle of one, or their length
/// without their bytes. Nothing really waits for the disk, so thousands of states take seconds.

#include <functional>
#include <memory>
#include <set>
#include <string>
#include <vector>

class PowerCut {
public:
    struct Moment {
        size_t returned = 0;         ///< recorded actions that had returned
        std::set<std::string> kept;  ///< names whose new file or content the unfinished action had made to stay
        std::string text;            ///< for people
    };

    /// @param directory  what is in it now is on the disk
    explicit PowerCut(const std::string& directory);
    ~PowerCut();

    /// Records one action, in a row with those before. What it changes in other ways fails the test.
    void Record(const std::function<void()>& action);
    /// The calls, as "create a.tmp", "write a.tmp", "sync a.tmp", "rename a.tmp a.cfg", "sync ." (the directory).
    std::vector<std::string> Calls() const;
    /// What was done without care: a file renamed unsynced, or not made with O_EXCL and O_NOFOLLOW; a directory that was
    /// not synced after a rename when the action returned; a descriptor that children inherit.
    const std::vector<std::string>& Faults() const;

    /// Makes every state and has it checked. @return their number, the same files at two kinds of moment being two
    size_t TryAll(const std::function<void(const Moment&)>& check);
    /// Runs an action from the first state on once for each of its calls, which fails; reads count too.
    /// @return number of runs
    size_t FailEach(int error, const std::function<void()>& action,
                    const std::function<void(const std::string& call)>& check);

    struct Recorder;  ///< for the calls that pass through

private:
    std::unique_ptr<Recorder> recorder_;
};
