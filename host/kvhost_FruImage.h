#pragma once
/// @file
/// What a FRU image says: the areas of the standard format with their fields, as people read them.

#include <cstdint>
#include <span>
#include <string>
#include <utility>
#include <vector>

namespace kvhost {

struct FruArea {
    std::string name;
    std::vector<std::pair<std::string, std::string>> fields;  ///< name and value
    std::string problem;  ///< what is wrong with the area; empty: nothing. Its fields are then as far as they go.
};

/// Takes an image apart. Every length in it is checked against the image.
/// @return the areas that there are. An image without a header that counts has one area, "header", with the problem.
std::vector<FruArea> DecodeFru(std::span<const uint8_t> image);

}  // namespace kvhost
