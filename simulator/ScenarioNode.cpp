#include "simulator/ScenarioNode.h"

#include <charconv>
#include <nlohmann/json.hpp>

namespace sim {

std::optional<uint64_t> ParseNumber(std::string_view text) {
    const bool hex = text.starts_with("0x") || text.starts_with("0X");
    if (hex) text.remove_prefix(2);
    uint64_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, hex ? 16 : 10);
    if (error != std::errc{} || end != text.data() + text.size()) return std::nullopt;
    return value;
}

void ScenarioNode::Fail(const std::string& what) const {
    throw ScenarioError((path_.empty() ? "scenario" : path_) + ": " + what);
}

void ScenarioNode::RequireObject() const {
    if (!value_->is_object()) Fail("must be an object");
}

bool ScenarioNode::Has(const std::string& key) {
    RequireObject();
    return value_->contains(key);
}

std::optional<ScenarioNode> ScenarioNode::Child(const std::string& key) {
    if (!Has(key)) return std::nullopt;
    used_.insert(key);
    return ScenarioNode(value_->at(key), path_.empty() ? key : path_ + "." + key);
}

std::vector<ScenarioNode> ScenarioNode::List(const std::string& key) {
    const auto child = Child(key);
    if (!child) return {};
    if (!child->value_->is_array()) child->Fail("must be a list");
    std::vector<ScenarioNode> nodes;
    for (size_t i = 0; i < child->value_->size(); ++i)
        nodes.emplace_back((*child->value_)[i], child->path_ + "[" + std::to_string(i) + "]");
    return nodes;
}

std::vector<std::pair<std::string, ScenarioNode>> ScenarioNode::Members() {
    RequireObject();
    std::vector<std::pair<std::string, ScenarioNode>> members;
    for (const auto& [key, value] : value_->items())
        members.emplace_back(key, *Child(key));
    return members;
}

void ScenarioNode::Done() const {
    for (const auto& [key, value] : value_->items())
        if (!used_.contains(key)) Fail("\"" + key + "\" is not known here");
}

void ScenarioNode::Read(bool& target) const {
    if (!value_->is_boolean()) Fail("must be true or false");
    target = value_->get<bool>();
}

void ScenarioNode::Read(std::string& target) const {
    if (!value_->is_string()) Fail("must be text");
    target = value_->get<std::string>();
}

void ScenarioNode::Read(Bytes& target) const {
    Bytes bytes;
    if (value_->is_array()) {
        for (size_t i = 0; i < value_->size(); ++i)
            bytes.push_back(
                static_cast<uint8_t>(ScenarioNode((*value_)[i], path_ + "[" + std::to_string(i) + "]").Number(0xFF)));
        target = std::move(bytes);
        return;
    }
    std::string digits;
    Read(digits);
    std::erase(digits, ' ');
    if (digits.size() % 2 != 0) Fail("must have an even number of hexadecimal digits");
    for (size_t i = 0; i < digits.size(); i += 2) {
        const auto byte = ParseNumber("0x" + digits.substr(i, 2));
        if (!byte) Fail("must consist of hexadecimal digits");
        bytes.push_back(static_cast<uint8_t>(*byte));
    }
    target = std::move(bytes);
}

uint64_t ScenarioNode::Number(uint64_t max) const {
    std::optional<uint64_t> number;
    if (value_->is_number_unsigned()) number = value_->get<uint64_t>();
    if (value_->is_string()) number = ParseNumber(value_->get<std::string>());
    if (!number) Fail("must be a number, not negative and without a fraction");
    if (*number > max) Fail(std::to_string(*number) + " exceeds " + std::to_string(max));
    return *number;
}

int64_t ScenarioNode::Signed(int64_t min, int64_t max) const {
    if (!value_->is_number_integer()) Fail("must be a number without a fraction");
    const auto number = value_->get<int64_t>();
    if (number < min || number > max)
        Fail(std::to_string(number) + " is not between " + std::to_string(min) + " and " + std::to_string(max));
    return number;
}

uint64_t ScenarioNode::Named(Names names, uint64_t max) const {
    if (!value_->is_string() || ParseNumber(value_->get<std::string>())) return Number(max);
    std::string known;
    for (const auto& [name, number] : names) {
        if (value_->get<std::string>() == name) return number;
        known += (known.empty() ? "" : ", ") + std::string(name);
    }
    Fail("\"" + value_->get<std::string>() + "\" is none of: " + known);
}

}  // namespace sim
