#pragma once
/// @file
/// A throw-away machine: a directory that holds what the library finds under its absolute paths, entered with chroot in
/// a mount namespace of the process's own. Nothing outside the directory is written.
///
///   MachineRoot root(".");                                     // below the working directory, removed at the end
///   root.AddFile("/etc/opt/velmora/lantrel/trace.cfg", text);  // before or after Enter() of a child, from outside
///   root.ReplaceProc("/proc/dma", " 4: cascade\n");            // the rest of /proc is the machine's own
///   int status = root.Run([] { ...; return 0; });              // in a forked child, inside the root
///
/// What is there from the start: the directories of the agent, the message catalogues and (when built) the programs of
/// the build tree under /opt/velmora/lantrel, /dev/null, /dev/zero, /dev/urandom, the system's libraries (read-only),
/// /etc/localtime and the shell tools that the library calls. /proc and /sys are the running kernel's.

#include <filesystem>
#include <functional>
#include <map>
#include <string>
#include <string_view>

class MachineRoot {
public:
    /// Makes the directory below parent, with a name of its own.
    /// @param buildDir  build tree whose lib/, bin/ and share/ appear under /opt/velmora/lantrel; empty: nothing appears there
    /// @throws std::filesystem::filesystem_error, std::system_error
    explicit MachineRoot(const std::filesystem::path& parent, std::filesystem::path buildDir = {});
    /// Takes a directory that exists or makes it, and leaves it in place at the end.
    static MachineRoot At(const std::filesystem::path& directory, std::filesystem::path buildDir = {});
    MachineRoot(MachineRoot&& other) noexcept;
    MachineRoot(const MachineRoot&) = delete;
    MachineRoot& operator=(const MachineRoot&) = delete;
    MachineRoot& operator=(MachineRoot&&) = delete;
    ~MachineRoot();

    /// Where a path of the machine lies seen from outside.
    std::filesystem::path Outside(std::string_view path) const;

    /// Writes a file of the machine, with its directories. Replaces an earlier one.
    void AddFile(std::string_view path, std::string_view content, mode_t mode = 0644) const;
    /// Makes a directory of the machine.
    void AddDirectory(std::string_view path) const;
    /// Hard-links (or copies) a file of the running system to the same path, or to another one.
    void AddSystemFile(const std::filesystem::path& source, std::string_view path = {}) const;
    /// Content of a file of the machine; empty when there is none.
    std::string ReadFile(std::string_view path) const;
    /// What a file of the kernel (under /proc or /sys) reads as from the next Enter() on. The path must exist there.
    void ReplaceProc(std::string_view path, std::string_view content);

    /// Enters the machine for the rest of the process (a user without rights enters a user namespace first).
    /// The process must have a single thread.
    void Enter() const;

    /// Runs body inside the machine in a forked child.
    /// @return the child's exit status (what body returned, 0 to 255), or 256 plus the signal that ended it
    int Run(const std::function<int()>& body) const;
    /// Starts body inside the machine in a forked child.
    /// @return the child's process id; the caller waits for it
    pid_t Start(const std::function<int()>& body) const;

private:
    struct Adopt {};
    MachineRoot(Adopt, std::filesystem::path directory, std::filesystem::path buildDir, bool remove);
    void Populate() const;
    void CopyMaps() const;

    std::filesystem::path directory_;
    std::filesystem::path buildDir_;
    std::map<std::string, std::string> replaced_;  ///< path in the machine -> file outside
    bool remove_;
};

/// Waits for a child. @return its exit status, or 256 plus the signal that ended it
int WaitForExit(pid_t child);
