#pragma once
/// @file
/// What becomes of the elements of a definition file. The start only logs what it leaves out; who checks a file before it
/// is delivered wants to know where that stands.

#include <string>
#include <string_view>

namespace definition {

/// Somebody who wants to know. Places lie in the text under analysis.
class Reader {
public:
    virtual ~Reader() = default;
    /// What is skipped next may be a copy of a part of the element that stands there.
    virtual void Begun(const char* /*at*/) {}
    virtual void Kept(const char* at) = 0;
    /// @param element  what was skipped, as far as it was read
    virtual void Skipped(std::string_view element, const std::string& reason) = 0;
};

/// Makes reader the one who is told of what the calling thread analyses, for its scope.
class Reading {
public:
    explicit Reading(Reader& reader);
    ~Reading();
    Reading(const Reading&) = delete;
    Reading& operator=(const Reading&) = delete;

private:
    Reader* before_;
};

/// An element is taken apart.
void Begun(const char* at);
/// An element has found its place in a table.
void Kept(const char* at);
/// An element is left out. @param reason  the text of the log line
void Skipped(std::string_view element, const char* reason);

}  // namespace definition

/// Logs that an element is left out, and tells the reader.
/// @param element  a view of what was read of it; then the log line's format and arguments
#define RAS_SKIPPED(element, ...)                         \
    do {                                                  \
        char reason_[1024];                               \
        snprintf(reason_, sizeof reason_, __VA_ARGS__);   \
        KvRasLog(1, kRasSource, __LINE__, "%s", reason_); \
        definition::Skipped(element, reason_);            \
    } while (false)
