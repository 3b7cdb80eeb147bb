// The library as a host meets it: the file, its names, and how they bind. This program exports its own symbols
// (-rdynamic) as a host agent does, some of them under the library's names.

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <regex>
#include <set>
#include <sstream>
#include <string>

#include "libplatform/libplatform.h"
#include "tests/support/BuildTree.h"

// Names of the host's own that the library uses too.
extern "C" KV_EXPORT const KvPluginVersion* GetVersion() {
    static constexpr KvPluginVersion kHost{"another plug-in", 99};
    return &kHost;
}

extern "C" KV_EXPORT int CreateEnum(uint32_t, _KVCIM_ENUM**) {
    return -1;
}

namespace {

const std::string kLibrary = InBuildTree("/lib/libplatform.so.1.0.0");

std::string OutputOf(const std::string& command) {
    std::string output;
    std::array<char, 4096> piece{};
    const std::unique_ptr<FILE, int (*)(FILE*)> pipe(popen(command.c_str(), "r"), pclose);
    while (fgets(piece.data(), static_cast<int>(piece.size()), pipe.get()) != nullptr)
        output += piece.data();
    return output;
}

std::string TextOf(const std::string& path) {
    std::ostringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
}

/// The public headers' texts by name.
std::map<std::string, std::string> Headers() {
    std::map<std::string, std::string> headers;
    for (const auto& header : std::filesystem::directory_iterator(InSourceTree("/include/libplatform")))
        headers[header.path().filename()] = TextOf(header.path());
    return headers;
}

std::set<std::string> DeclaredNames() {
    static const std::regex comments(R"(//[^\n]*|/\*[^*]*\*+(?:[^/*][^*]*\*+)*/)");
    static const std::regex declaration(R"(KV_EXPORT[^;({]*?\b([A-Za-z_]\w*)\s*[(;\[])");
    std::set<std::string> names;
    for (const auto& [header, text] : Headers()) {
        if (header == "KvExport.h") continue;
        const std::string code = std::regex_replace(text, comments, " ");
        for (std::sregex_iterator match(code.begin(), code.end(), declaration), end; match != end; ++match) {
            names.insert((*match)[1]);
        }
    }
    return names;
}

TEST(Library, ExportsWhatThePublicHeadersDeclare) {
    std::set<std::string> exported;
    std::istringstream lines(OutputOf("nm -D --defined-only " + kLibrary));
    for (std::string address, type, name; lines >> address >> type >> name;)
        exported.insert(name);
    // The methods of a class go out with it, under names that the compiler makes.
    std::erase_if(exported,
                  [](const std::string& name) { return std::regex_search(name, std::regex("^_ZNK?9CKvString")); });
    EXPECT_EQ(DeclaredNames(), exported);
}

TEST(Headers, AllAreOnTheFirstPage) {
    const std::string page = Headers().at("libplatform.h");
    for (const auto& [header, text] : Headers()) {
        if (header == "libplatform.h") continue;
        EXPECT_NE(std::string::npos, page.find("\n/// | " + header + " ")) << header;
        EXPECT_NE(std::string::npos, page.find("\n#include \"libplatform/" + header + "\"\n")) << header;
    }
}

// What is not in headers.c word for word is not known to compile.
TEST(Headers, CodeSamplesAreCompiled) {
    const auto flat = [](const std::string& text) {
        return std::regex_replace(text, std::regex(R"((\s*\n(///)?)+\s*|\s+)"), " ");
    };
    const std::string compiled = flat(TextOf(InSourceTree("/tests/library/headers.c")));
    for (const auto& [header, text] : Headers()) {
        static const std::string begin = "/// @code\n";
        for (size_t at = 0; (at = text.find(begin, at)) != std::string::npos;) {
            at += begin.size();
            const std::string sample = flat("\n" + text.substr(at, text.find("/// @endcode", at) - at));
            EXPECT_NE(std::string::npos, compiled.find(sample)) << header << sample;
        }
    }
}

TEST(Library, NeedsNothingButTheSystemsLibraries) {
    static const std::regex needed(R"(NEEDED\s+(\S+))");
    const std::string headers = OutputOf("objdump -p " + kLibrary);
    for (std::sregex_iterator match(headers.begin(), headers.end(), needed), end; match != end; ++match) {
        EXPECT_TRUE(std::regex_match(
            (*match)[1].str(), std::regex(R"(lib(stdc\+\+|gcc_s|c|m|pthread|asan|ubsan)\.so\.\d+|ld-linux\.so\.2)")))
            << (*match)[1];
    }
    EXPECT_NE(std::string::npos, headers.find("SONAME               libplatform.so.1\n"));
}

TEST(Library, HasItsTwoLinks) {
    for (const char* link : {"/lib/libplatform.so", "/lib/libplatform.so.1"}) {
        EXPECT_EQ(std::filesystem::canonical(kLibrary), std::filesystem::canonical(InBuildTree(link)));
    }
}

TEST(Library, LoadsInAHostThatLacksEveryOptionalNameAndKeepsToItsOwn) {
    void* library = dlopen(kLibrary.c_str(), RTLD_NOW | RTLD_GLOBAL);
    ASSERT_NE(nullptr, library) << dlerror();
    const auto version = reinterpret_cast<decltype(&GetVersion)>(dlsym(library, "GetVersion"));
    ASSERT_NE(nullptr, version);
    EXPECT_STREQ("libplatform", version()->name);
    EXPECT_EQ(1u, version()->version);

    // A library-internal call by a name that the host has too must reach the library's own function.
    const auto duplicate = reinterpret_cast<decltype(&DuplicateEnum)>(dlsym(library, "DuplicateEnum"));
    const auto release = reinterpret_cast<decltype(&FreeEnum)>(dlsym(library, "FreeEnum"));
    _KVCIM_ENUM source{};
    _KVCIM_ENUM* copy = nullptr;
    ASSERT_EQ(0, duplicate(&source, &copy));
    release(copy);

    EXPECT_EQ(0, dlclose(library));
    EXPECT_NE(nullptr, dlopen(kLibrary.c_str(), RTLD_NOW | RTLD_NOLOAD)) << "stays mapped under a stuck worker";
}

}  // namespace
