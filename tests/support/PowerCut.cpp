#include "tests/support/PowerCut.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <mutex>
#include <stdexcept>
#include <tuple>
#include <unordered_set>

namespace fs = std::filesystem;
using std::string;

namespace {

constexpr int kDirectory = -1;  // in the place of a file's number
constexpr size_t kMostStatesAtOnce = 20'000;
constexpr size_t kLongRun = 64 * 1024;  // of a file that is written from its beginning to its end
constexpr size_t kMostOpenNames = 12;

enum Kind { kOpen, kRead, kCreate, kWrite, kResize, kRename, kRemove, kSync, kReturn };
constexpr const char* kVerbs[] = {"open", "read", "create", "write", "resize", "rename", "remove", "sync", "return"};

struct Step {
    Kind kind;
    int file = kDirectory;
    string name = {};
    string to = {};
    size_t offset = 0;  // or the new size
    string data = {};

    string Print() const { return kVerbs[kind] + (name.empty() ? "" : " " + name) + (to.empty() ? "" : " " + to); }
    const string& NewName() const { return kind == kRename ? to : name; }
    /// Whether a step only goes on with a long file: the places at which it may be cut need no end.
    bool IsLongRun(const Step& next) const {
        const bool goesOn = kind == kWrite && next.kind == kWrite && file == next.file;
        return goesOn && next.offset == offset + data.size() && next.offset >= kLongRun;
    }
};

using Names = std::map<string, int>;

string ParentOf(const string& name) {
    const string parent = fs::path(name).parent_path();
    return parent.empty() ? "." : parent;
}

int FileAt(const Names& names, const string& name) {
    const auto at = names.find(name);
    return at != names.end() ? at->second : kDirectory;
}

void ChangeNames(Names& names, const Step& step) {
    if (step.kind != kCreate && FileAt(names, step.name) == step.file) names.erase(step.name);
    if (step.kind != kRemove) names[step.NewName()] = step.file;
}

/// @param size  how much of a write arrives
void ChangeContent(string& content, const Step& step, size_t size = string::npos) {
    if (step.kind == kResize) return content.resize(step.offset);
    size = std::min(size, step.data.size());
    content.resize(std::max(content.size(), step.offset + size));
    content.replace(step.offset, size, step.data, 0, size);
}

/// Files as they are, and what of them is on the disk for good.
struct Disk {
    Names names, keptNames;
    std::map<int, string> contents, keptContents;
    std::vector<Step> openNames;
    std::map<int, std::vector<Step>> openWrites;
    std::set<string> touched, kept;  // since the action began

    void Do(const Step& step) {
        if (step.kind == kSync) return step.file == kDirectory ? SyncDirectory(step.name) : SyncFile(step);
        if (step.kind == kReturn) {
            touched.clear();
            return kept.clear();
        }
        touched.insert(step.NewName());
        if (step.kind == kWrite || step.kind == kResize) {
            ChangeContent(contents[step.file], step);
            openWrites[step.file].push_back(step);
        } else {
            ChangeNames(names, step);
            openNames.push_back(step);
            if (step.kind == kCreate && step.file != kDirectory) contents[step.file] = keptContents[step.file] = "";
        }
    }
    void SyncFile(const Step& step) {
        keptContents[step.file] = contents[step.file];
        openWrites.erase(step.file);
        if (touched.contains(step.name) && FileAt(keptNames, step.name) == step.file) kept.insert(step.name);
    }
    void SyncDirectory(const string& directory) {
        const auto others = std::ranges::stable_partition(
            openNames, [&](const Step& step) { return ParentOf(step.NewName()) == directory; });
        for (auto step = openNames.begin(); step != others.begin(); ++step) {
            ChangeNames(keptNames, *step);
            if (!openWrites.contains(step->file)) kept.insert(step->NewName());
        }
        openNames.erase(openNames.begin(), others.begin());
    }

    /// Every content that a file may be left with.
    std::set<string> Outcomes(int file) const {
        const string& before = keptContents.at(file);
        const std::vector<Step>& writes = openWrites.at(file);
        string upTo = before;
        upTo.resize(contents.at(file).size());
        std::set<string> all{before, upTo};
        upTo = before;
        for (const Step& write : writes) {
            string torn = upTo;
            ChangeContent(torn, write, write.data.size() / 2);
            ChangeContent(upTo, write);
            string without = before;
            for (const Step& other : writes) {
                if (&other != &write) ChangeContent(without, other);
            }
            all.insert({torn, upTo, without});
        }
        return all;
    }
    /// Every set of names that may be left.
    std::set<Names> NameOutcomes() const {
        std::set<Names> all;
        if (openNames.size() > kMostOpenNames) throw std::length_error("a directory that is not synced");
        for (size_t done = 0; done < size_t{1} << openNames.size(); ++done) {
            Names outcome = keptNames;
            for (size_t i = 0; i < openNames.size(); ++i) {
                if ((done >> i & 1) != 0) ChangeNames(outcome, openNames[i]);
            }
            all.insert(std::move(outcome));
        }
        return all;
    }
};

using State = std::map<string, const string*>;            // null: a directory
using Key = std::tuple<State, size_t, std::set<string>>;  // files, actions that had returned, names kept

}  // namespace

struct PowerCut::Recorder {
    explicit Recorder(const string& directory) : root(fs::absolute(directory).lexically_normal()) {}

    const fs::path root;
    Disk first, disk;
    std::vector<Step> steps;
    std::vector<string> faults;
    int files = 0;
    std::set<int> trusting;  // files made through a name that others may have planted
    std::map<int, Step> descriptors;
    std::set<int> synchronous;  // of these: what is written is on the disk when the call returns
    std::unordered_set<string> contents;
    int error = 0;  // not 0: instead of being recorded, a call is to fail
    size_t callsBeforeFailure = 0;
    string failing;

    static inline Recorder* recording = nullptr;
    static inline bool waitsForDisk = true;

    const string* Keep(string content) { return &*contents.insert(std::move(content)).first; }

    State Now() {
        State state;
        for (const auto& entry : fs::recursive_directory_iterator(root)) {
            std::ifstream in(entry.path(), std::ios::binary);
            const string name = fs::relative(entry.path(), root);
            state[name] = entry.is_directory() ? nullptr : Keep({std::istreambuf_iterator<char>(in), {}});
        }
        return state;
    }
    State StateOf(const Names& names, const std::map<int, string>& texts) {
        State state;
        for (const auto& [name, file] : names) {
            const string parent = ParentOf(name);
            if (parent != "." && !state.contains(parent)) continue;  // went with its directory
            state[name] = file == kDirectory ? nullptr : Keep(texts.at(file));
        }
        return state;
    }
    void Make(const State& state) const {
        for (const auto& entry : fs::directory_iterator(root))
            fs::remove_all(entry.path());
        for (const auto& [name, content] : state) {
            if (content == nullptr) {
                fs::create_directory(root / name);
            } else {
                std::ofstream(root / name, std::ios::binary) << *content;
            }
        }
    }
    void Run(const std::function<void()>& action) {
        recording = this;
        action();
        recording = nullptr;
        descriptors.clear();
        synchronous.clear();
    }
    void Add(Step step) {
        disk.Do(step);
        if (!steps.empty() && steps.back().IsLongRun(step)) {
            steps.back().data += step.data;
        } else {
            steps.push_back(std::move(step));
        }
    }

    std::vector<State> LeftByPowerCut() {
        std::vector<State> states;
        for (const Names& names : disk.NameOutcomes()) {
            const State base = StateOf(names, disk.keptContents);
            std::vector<State> combined{base};
            for (const auto& [name, content] : base) {
                if (content == nullptr || !disk.openWrites.contains(names.at(name))) continue;
                const auto outcomes = disk.Outcomes(names.at(name));
                for (const State& state : std::exchange(combined, {})) {
                    for (const string& outcome : outcomes)
                        combined.emplace_back(state)[name] = Keep(outcome);
                }
            }
            std::ranges::move(combined, std::back_inserter(states));
            if (states.size() > kMostStatesAtOnce) throw std::length_error("too much is left to a power cut at once");
        }
        return states;
    }
    std::map<Key, string> Moments() {
        std::map<Key, string> moments;
        size_t returned = 0;
        disk = first;
        for (size_t i = 0; i <= steps.size(); ++i) {
            const string before = i < steps.size() ? steps[i].Print() : "nothing more";
            moments.emplace(Key{StateOf(disk.names, disk.contents), returned, disk.touched}, "killed before " + before);
            for (State& state : LeftByPowerCut())
                moments.emplace(Key{std::move(state), returned, disk.kept}, "power cut before " + before);
            if (i == steps.size()) break;
            disk.Do(steps[i]);
            if (steps[i].kind == kReturn) ++returned;
        }
        return moments;
    }

    /// @return the path as seen from the root; empty when it lies elsewhere
    string Inside(int directory, const char* path) const {
        fs::path whole = path;
        if (directory != AT_FDCWD && whole.is_relative()) {
            whole = fs::read_symlink("/proc/self/fd/" + std::to_string(directory)) / whole;
        }
        string name = fs::absolute(whole).lexically_relative(root).lexically_normal();
        if (name.size() > 1 && name.ends_with('/')) name.pop_back();
        return name.starts_with("..") ? "" : name;
    }
    void Opened(const string& name, int fd, int flags) {
        const bool isNew = !disk.names.contains(name) && (flags & O_CREAT) != 0;
        const int file = isNew ? files++ : FileAt(disk.names, name);
        descriptors[fd] = {kOpen, file, name};
        if ((flags & O_SYNC) == O_SYNC) synchronous.insert(fd);
        if (error != 0) return;
        if ((flags & O_CLOEXEC) == 0) faults.push_back(name + " opened for children too");
        if (isNew && (flags & (O_EXCL | O_NOFOLLOW)) != (O_EXCL | O_NOFOLLOW)) trusting.insert(file);
        if (isNew) Add({kCreate, file, name});
        if (!isNew && (flags & O_TRUNC) != 0) Add({kResize, file, name});
    }
    void Renamed(const Step& step) {
        if (disk.openWrites.contains(step.file)) faults.push_back(step.name + " renamed unsynced");
        if (trusting.contains(step.file)) faults.push_back(step.name + " renamed, made without O_EXCL | O_NOFOLLOW");
    }
};

PowerCut::PowerCut(const string& directory) : recorder_(new Recorder(directory)) {
    Recorder& r = *recorder_;
    for (const auto& [name, content] : r.Now()) {
        const int file = content == nullptr ? kDirectory : r.files++;
        r.disk.names[name] = file;
        if (content != nullptr) r.disk.contents[file] = *content;
    }
    r.disk.keptNames = r.disk.names;
    r.disk.keptContents = r.disk.contents;
    r.first = r.disk;
}

PowerCut::~PowerCut() = default;

void PowerCut::Record(const std::function<void()>& action) {
    Recorder& r = *recorder_;
    r.Run(action);
    for (const Step& step : r.disk.openNames) {
        if (step.kind == kRename) r.faults.push_back(step.to + " renamed, its directory not synced");
    }
    r.Add({kReturn});
    EXPECT_EQ(r.Now(), r.StateOf(r.disk.names, r.disk.contents)) << "files were changed behind the recorder";
}

std::vector<string> PowerCut::Calls() const {
    std::vector<string> calls;
    std::ranges::transform(recorder_->steps, std::back_inserter(calls), &Step::Print);
    return calls;
}

const std::vector<string>& PowerCut::Faults() const {
    return recorder_->faults;
}

size_t PowerCut::TryAll(const std::function<void(const Moment&)>& check) {
    const auto moments = recorder_->Moments();
    Recorder::waitsForDisk = false;
    for (const auto& [key, text] : moments) {
        const auto& [state, returned, kept] = key;
        string left = text + " leaves";
        for (const auto& [name, content] : state)
            left += " " + name + (content != nullptr ? "(" + std::to_string(content->size()) + ")" : "/");
        SCOPED_TRACE(left);
        recorder_->Make(state);
        check({returned, kept, text});
    }
    Recorder::waitsForDisk = true;
    return moments.size();
}

size_t PowerCut::FailEach(int error, const std::function<void()>& action,
                          const std::function<void(const string&)>& check) {
    Recorder& r = *recorder_;
    Recorder::waitsForDisk = false;
    size_t runs = 0;
    for (;; ++runs) {
        r.Make(r.StateOf(r.first.names, r.first.contents));
        r.disk = r.first;
        r.failing.clear();
        r.error = error;
        r.callsBeforeFailure = runs;
        r.Run(action);
        r.error = 0;
        if (r.failing.empty()) break;
        SCOPED_TRACE("failing: " + r.failing);
        check(r.failing);
    }
    Recorder::waitsForDisk = true;
    return runs;
}

// ---- What stands between the program and the C library (link option --wrap)

namespace {

/// One call. Threads take turns while one is recorded.
class Call : Step {
public:
    Call(Kind what, int directory, const char* path) : Call(what) {
        if (recorder_ != nullptr) name = recorder_->Inside(directory, path);
        if (!name.empty()) file = FileAt(recorder_->disk.names, name);
    }
    Call(Kind what, int fd) : Call(what) {
        if (recorder_ == nullptr || !recorder_->descriptors.contains(fd)) return;
        synchronous_ = what == kWrite && recorder_->synchronous.contains(fd);
        name = recorder_->descriptors[fd].name;
        file = recorder_->descriptors[fd].file;
    }
    bool Fails() {
        if (name.empty() || recorder_->error == 0 || recorder_->callsBeforeFailure-- != 0) return false;
        recorder_->failing = Print();
        errno = recorder_->error;
        return true;
    }
    /// Notes a call that was made.
    /// @param position  where it wrote or cut
    template <typename Result>
    Result Done(Result result, off_t position = 0, const void* bytes = nullptr) {
        if (name.empty() || result < 0 || recorder_->error != 0) return result;
        offset = static_cast<size_t>(position);
        if (bytes != nullptr) data.assign(static_cast<const char*>(bytes), static_cast<size_t>(result));
        recorder_->Add(*this);
        if (synchronous_) recorder_->Add({kSync, file, name});
        return result;
    }
    off_t Position(int fd) const {
        struct stat info {};
        if (name.empty()) return 0;
        const bool appends = (fcntl(fd, F_GETFL) & O_APPEND) != 0 && fstat(fd, &info) == 0;
        return appends ? info.st_size : lseek(fd, 0, SEEK_CUR);
    }
    int Opened(int fd, int flags) {
        if (!name.empty() && fd >= 0) recorder_->Opened(name, fd, flags);
        return fd;
    }
    int Renamed(int result, const char* target) {
        if (name.empty()) return result;
        to = recorder_->Inside(AT_FDCWD, target);
        if (result == 0 && recorder_->error == 0) recorder_->Renamed(*this);
        return Done(result);
    }
    int Closed(int result, int fd) {
        if (recorder_ != nullptr) {
            recorder_->descriptors.erase(fd);
            recorder_->synchronous.erase(fd);
        }
        return result;
    }

private:
    explicit Call(Kind what) : Step{what}, recorder_(PowerCut::Recorder::recording) {
        static std::mutex one;
        if (recorder_ != nullptr) turn_ = std::unique_lock(one);
    }

    PowerCut::Recorder* recorder_;
    bool synchronous_ = false;
    std::unique_lock<std::mutex> turn_;
};

}  // namespace

extern "C" {

int __real_open64(const char*, int, ...);
int __real_mkdir(const char*, mode_t);
int __real_rename(const char*, const char*);
int __real_unlinkat(int, const char*, int);
int __real_ftruncate64(int, off_t);
int __real_fsync(int);
int __real_close(int);
ssize_t __real_read(int, void*, size_t);
ssize_t __real_pread64(int, void*, size_t, off_t);
ssize_t __real_write(int, const void*, size_t);
ssize_t __real_pwrite64(int, const void*, size_t, off_t);

int __wrap_open64(const char* path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    Call call(kOpen, AT_FDCWD, path);
    return call.Fails() ? -1 : call.Opened(__real_open64(path, flags, mode), flags);
}

int __wrap_mkdir(const char* path, mode_t mode) {
    Call call(kCreate, AT_FDCWD, path);
    return call.Fails() ? -1 : call.Done(__real_mkdir(path, mode));
}

int __wrap_rename(const char* from, const char* to) {
    Call call(kRename, AT_FDCWD, from);
    return call.Fails() ? -1 : call.Renamed(__real_rename(from, to), to);
}

int __wrap_unlinkat(int directory, const char* path, int flags) {
    Call call(kRemove, directory, path);
    return call.Fails() ? -1 : call.Done(__real_unlinkat(directory, path, flags));
}

int __wrap_unlink(const char* path) {
    return __wrap_unlinkat(AT_FDCWD, path, 0);
}

int __wrap_ftruncate64(int fd, off_t size) {
    Call call(kResize, fd);
    return call.Fails() ? -1 : call.Done(__real_ftruncate64(fd, size), size);
}

ssize_t __wrap_read(int fd, void* data, size_t size) {
    return Call(kRead, fd).Fails() ? -1 : __real_read(fd, data, size);
}

ssize_t __wrap_pread64(int fd, void* data, size_t size, off_t position) {
    return Call(kRead, fd).Fails() ? -1 : __real_pread64(fd, data, size, position);
}

ssize_t __wrap_write(int fd, const void* data, size_t size) {
    Call call(kWrite, fd);
    const off_t position = call.Position(fd);
    return call.Fails() ? -1 : call.Done(__real_write(fd, data, size), position, data);
}

ssize_t __wrap_pwrite64(int fd, const void* data, size_t size, off_t position) {
    Call call(kWrite, fd);
    return call.Fails() ? -1 : call.Done(__real_pwrite64(fd, data, size, position), position, data);
}

int __wrap_fsync(int fd) {
    Call call(kSync, fd);
    return call.Fails() ? -1 : call.Done(PowerCut::Recorder::waitsForDisk ? __real_fsync(fd) : 0);
}

int __wrap_fdatasync(int fd) {
    return __wrap_fsync(fd);
}

int __wrap_close(int fd) {
    return Call(kSync, fd).Closed(__real_close(fd), fd);
}

}  // extern "C"
