#pragma once
/// @file
/// Where this tree's products and sources lie.

#include <string>

/// @param path  below the build directory of the preset at hand, with its leading slash
std::string InBuildTree(const std::string& path = "");
/// @param path  below the sources, with its leading slash
std::string InSourceTree(const std::string& path = "");
