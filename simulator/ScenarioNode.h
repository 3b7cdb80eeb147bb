#pragma once
/// @file
/// Strict reading of a scenario file: every mistake names the field it is in ("bmc.sdr[3].number: 300 exceeds 255").

#include <algorithm>
#include <array>
#include <cstdint>
#include <limits>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <set>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include "simulator/BmcMessage.h"

namespace sim {

class ScenarioError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// One value of the file with its path. The document must outlive its nodes.
class ScenarioNode {
public:
    using Names = std::span<const std::pair<std::string_view, uint64_t>>;

    ScenarioNode(const nlohmann::json& value, std::string path) : value_(&value), path_(std::move(path)) {}

    bool Has(const std::string& key);
    /// The member, or nothing.
    std::optional<ScenarioNode> Child(const std::string& key);
    /// The elements of a member that is a list; nothing when it is absent.
    std::vector<ScenarioNode> List(const std::string& key);
    /// All members of this object, whatever their names.
    std::vector<std::pair<std::string, ScenarioNode>> Members();
    /// Refuses members that nobody asked for.
    void Done() const;

    /// Sets target from the member; leaves it alone when the member is absent.
    template <class T>
    void Take(const std::string& key, T& target) {
        if (const auto child = Child(key)) child->Read(target);
    }
    /// The same for a member that must be there.
    template <class T>
    void Need(const std::string& key, T& target) {
        if (!Has(key)) Fail("\"" + key + "\" is missing");
        Take(key, target);
    }
    /// A number, or one of the names for numbers.
    template <class T>
    void TakeNamed(const std::string& key, Names names, T& target) {
        if (const auto child = Child(key)) target = static_cast<T>(child->Named(names, std::numeric_limits<T>::max()));
    }

    void Read(bool& target) const;
    void Read(std::string& target) const;
    /// A list of numbers, or text of hexadecimal digits: "C1 02 0a".
    void Read(Bytes& target) const;
    template <class T>
    requires(std::is_integral_v<T> && !std::is_same_v<T, bool>) void Read(T& target) const {
        if constexpr (std::is_signed_v<T>)
            target = static_cast<T>(Signed(std::numeric_limits<T>::min(), std::numeric_limits<T>::max()));
        else
            target = static_cast<T>(Number(std::numeric_limits<T>::max()));
    }
    /// Exactly as many bytes as the array has.
    template <size_t kSize>
    void Read(std::array<uint8_t, kSize>& target) const {
        Bytes bytes;
        Read(bytes);
        if (bytes.size() != kSize) Fail("must have " + std::to_string(kSize) + " bytes");
        std::copy(bytes.begin(), bytes.end(), target.begin());
    }

    /// A number, written as such or as text in decimal or with 0x.
    uint64_t Number(uint64_t max) const;
    int64_t Signed(int64_t min, int64_t max) const;
    uint64_t Named(Names names, uint64_t max) const;
    const std::string& Path() const { return path_; }

    [[noreturn]] void Fail(const std::string& what) const;

private:
    void RequireObject() const;

    const nlohmann::json* value_;
    std::string path_;
    std::set<std::string> used_;
};

/// The number that text writes, in decimal or with 0x; nothing when it is none.
std::optional<uint64_t> ParseNumber(std::string_view text);

}  // namespace sim
