#include "simulator/MachineRoot.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <exception>
#include <fstream>
#include <iostream>
#include <sstream>
#include <system_error>
#include <utility>

namespace fs = std::filesystem;

namespace {

constexpr std::string_view kAgent = "/opt/velmora/lantrel";

constexpr std::array kDirectories = {
    "/opt/velmora/lantrel/bin",
    "/opt/velmora/lantrel/lib",
    "/opt/velmora/lantrel/maps",
    "/etc/opt/velmora/lantrel",
    "/var/opt/velmora/lantrel/log",
    "/var/opt/velmora/lantrel/dat",
    "/var/opt/velmora/lantrel/tmp",
    "/dev",
    "/proc",
    "/sys",
    "/tmp",
    "/etc",
    "/usr/bin",
    "/usr/sbin",
    "/usr/share/zoneinfo",
};

// The shell tools that the library or its users call, linked one by one so that a test can put its own in their place.
constexpr std::array kTools = {"/usr/bin/sh",   "/usr/bin/grep",  "/usr/bin/sed",  "/usr/bin/cat",
                               "/usr/bin/nice", "/usr/bin/sleep", "/usr/bin/true", "/usr/bin/false"};

// Directories that exist under / and /usr alike on a machine with one merged tree.
constexpr std::array kMerged = {"bin", "sbin", "lib", "lib32", "lib64", "libx32"};

// What a build tree and an installation have in common.
constexpr std::array kBuilt = {"lib", "bin", "share"};

[[noreturn]] void Fail(const std::string& what) {
    throw std::system_error(errno, std::generic_category(), what);
}

void BindMount(const fs::path& source, const fs::path& target, bool readOnly = false) {
    if (mount(source.c_str(), target.c_str(), "none", MS_BIND | MS_REC, nullptr) != 0) {
        Fail("bind mount " + source.string() + " on " + target.string());
    }
    if (readOnly) mount("none", target.c_str(), "none", MS_BIND | MS_REMOUNT | MS_RDONLY, nullptr);
}

void WriteIdMap(const char* path, unsigned id) {
    std::ofstream(path) << "0 " << id << " 1\n";
}

// Root in the namespace is enough for mounts and chroot; a user without rights gets it from a namespace of its own.
void EnterNamespaces() {
    const uid_t uid = geteuid();
    const gid_t gid = getegid();
    if (unshare(CLONE_NEWNS | (uid == 0 ? 0 : CLONE_NEWUSER)) != 0) Fail("unshare");
    if (uid != 0) {
        std::ofstream("/proc/self/setgroups") << "deny";
        WriteIdMap("/proc/self/uid_map", uid);
        WriteIdMap("/proc/self/gid_map", gid);
    }
    if (mount("none", "/", "none", MS_REC | MS_PRIVATE, nullptr) != 0) Fail("private mounts");
}

}  // namespace

MachineRoot::MachineRoot(const fs::path& parent, fs::path buildDir) : buildDir_(std::move(buildDir)), remove_(true) {
    fs::create_directories(parent);
    std::string name = (fs::canonical(parent) / "machine.XXXXXX").string();
    if (mkdtemp(name.data()) == nullptr) Fail("mkdtemp " + name);
    directory_ = name;
    Populate();
}

MachineRoot::MachineRoot(Adopt, fs::path directory, fs::path buildDir, bool remove)
    : directory_(std::move(directory)), buildDir_(std::move(buildDir)), remove_(remove) {}

MachineRoot::MachineRoot(MachineRoot&& other) noexcept
    : directory_(std::move(other.directory_)),
      buildDir_(std::move(other.buildDir_)),
      replaced_(std::move(other.replaced_)),
      remove_(std::exchange(other.remove_, false)) {}

MachineRoot MachineRoot::At(const fs::path& directory, fs::path buildDir) {
    fs::create_directories(directory);
    MachineRoot root(Adopt{}, fs::canonical(directory), std::move(buildDir), false);
    root.Populate();
    return root;
}

MachineRoot::~MachineRoot() {
    // What is mounted lives in the namespaces of the processes that entered; here there are only plain files.
    std::error_code ignored;
    if (remove_) fs::remove_all(directory_, ignored);
}

fs::path MachineRoot::Outside(std::string_view path) const {
    return directory_ / fs::path(path).relative_path();
}

void MachineRoot::Populate() const {
    for (const char* directory : kDirectories)
        AddDirectory(directory);
    fs::permissions(Outside("/var/opt/velmora/lantrel/tmp"), fs::perms::owner_all);
    for (const char* name : kMerged) {
        const fs::path link = directory_ / name;
        if (!fs::exists(fs::path("/usr") / name)) continue;
        fs::create_directories(directory_ / "usr" / name);
        if (!fs::exists(fs::symlink_status(link))) fs::create_symlink(fs::path("usr") / name, link);
    }
    for (const char* tool : kTools) {
        if (fs::exists(tool)) AddSystemFile(tool);
    }
    for (const char* file : {"/etc/localtime", "/etc/passwd", "/etc/group", "/etc/ld.so.cache"}) {
        if (fs::exists(file)) AddSystemFile(fs::canonical(file), file);
    }
    for (const char* device : {"/dev/null", "/dev/zero", "/dev/urandom"})
        AddFile(device, "");
    if (!buildDir_.empty()) {
        for (const char* name : kBuilt)
            AddDirectory(std::string(kAgent) + '/' + name);
        CopyMaps();
    }
}

/// The definition files are the machine's own to change: copies, unless it has some already.
void MachineRoot::CopyMaps() const {
    const fs::path maps = buildDir_ / "maps";
    if (!fs::exists(maps)) return;
    for (const fs::directory_entry& file : fs::directory_iterator(maps)) {
        fs::copy_file(file, Outside(std::string(kAgent) + "/maps") / file.path().filename(),
                      fs::copy_options::skip_existing);
    }
}

void MachineRoot::AddDirectory(std::string_view path) const {
    fs::create_directories(Outside(path));
}

void MachineRoot::AddFile(std::string_view path, std::string_view content, mode_t mode) const {
    const fs::path file = Outside(path);
    fs::create_directories(file.parent_path());
    fs::remove(file);  // the old one may be a hard link into the system
    std::ofstream out(file, std::ios::binary);
    out.write(content.data(), static_cast<std::streamsize>(content.size()));
    out.close();
    if (!out) Fail("write " + file.string());
    if (chmod(file.c_str(), mode) != 0) Fail("chmod " + file.string());
}

void MachineRoot::AddSystemFile(const fs::path& source, std::string_view path) const {
    const fs::path real = fs::canonical(source);
    const fs::path target = Outside(path.empty() ? std::string_view(source.native()) : path);
    fs::create_directories(target.parent_path());
    fs::remove(target);
    std::error_code cannotLink;  // another file system, or links to foreign files forbidden
    fs::create_hard_link(real, target, cannotLink);
    if (cannotLink) fs::copy_file(real, target);
}

std::string MachineRoot::ReadFile(std::string_view path) const {
    std::ifstream in(Outside(path), std::ios::binary);
    std::ostringstream content;
    content << in.rdbuf();
    return content.str();
}

void MachineRoot::ReplaceProc(std::string_view path, std::string_view content) {
    std::string name = ".replaced";
    for (const char c : path)
        name += c == '/' ? '_' : c;
    AddFile(name, content);
    replaced_[std::string(path)] = Outside(name).string();
}

void MachineRoot::Enter() const {
    EnterNamespaces();
    for (const char* name : kMerged) {
        const fs::path target = directory_ / "usr" / name;
        if (std::string_view(name).starts_with("lib") && fs::exists(target)) {
            BindMount(fs::path("/usr") / name, target, true);
        }
    }
    for (const char* device : {"dev/null", "dev/zero", "dev/urandom"})
        BindMount(fs::path("/") / device, directory_ / device);
    BindMount("/proc", directory_ / "proc");
    BindMount("/sys", directory_ / "sys");
    if (!buildDir_.empty()) {
        for (const char* name : kBuilt) {
            if (fs::exists(buildDir_ / name)) BindMount(buildDir_ / name, Outside(kAgent) / name, true);
        }
    }
    for (const auto& [path, file] : replaced_)
        BindMount(file, Outside(path));
    if (chroot(directory_.c_str()) != 0 || chdir("/") != 0) Fail("chroot " + directory_.string());
}

pid_t MachineRoot::Start(const std::function<int()>& body) const {
    std::cout.flush();
    std::cerr.flush();
    fflush(nullptr);
    const pid_t child = fork();
    if (child < 0) Fail("fork");
    if (child > 0) return child;
    int status = 255;
    try {
        Enter();
        status = body();
    } catch (const std::exception& e) {
        std::cerr << "in the machine root: " << e.what() << '\n';
    }
    std::exit(status);  // with the exit handlers, so that leaks are looked for here too
}

int MachineRoot::Run(const std::function<int()>& body) const {
    return WaitForExit(Start(body));
}

int WaitForExit(pid_t child) {
    int status = 0;
    while (waitpid(child, &status, 0) < 0) {
        if (errno != EINTR) Fail("waitpid");
    }
    return WIFSIGNALED(status) ? 256 + WTERMSIG(status) : WEXITSTATUS(status);
}
