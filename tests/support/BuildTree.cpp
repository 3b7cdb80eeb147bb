// The only file that the place of the tree is compiled into: all others come from a compiler cache in any checkout.
#include "tests/support/BuildTree.h"

std::string InBuildTree(const std::string& path) {
    return KV_BUILD_DIR + path;
}

std::string InSourceTree(const std::string& path) {
    return KV_SOURCE_DIR + path;
}
