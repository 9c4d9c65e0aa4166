#include "runtime/http/json_sdk.h"

#include <limits>

#include <nlohmann/json.hpp>

namespace {

using nlohmann::json;

// The array under `arrayKey` of the parsed text, or null.
const json* FindArray(const json& document, const std::string& arrayKey) {
    if (!document.is_object()) {
        return nullptr;
    }
    const auto it = document.find(arrayKey);
    if (it == document.end() || !it->is_array()) {
        return nullptr;
    }
    return &*it;
}

// Member `key` of element `index`, or null.
const json* FindMember(const json& document, const std::string& arrayKey, const std::string& key, int index) {
    const json* array = FindArray(document, arrayKey);
    if (array == nullptr || index < 0 || static_cast<std::size_t>(index) >= array->size()) {
        return nullptr;
    }
    const json& element = (*array)[static_cast<std::size_t>(index)];
    if (!element.is_object()) {
        return nullptr;
    }
    const auto it = element.find(key);
    return it == element.end() ? nullptr : &*it;
}

json ParseQuietly(const std::string& text) {
    return json::parse(text, nullptr, false);
}

}  // namespace

bool JsonSdk::GetJsonArraySizeByKey(const std::string& text, const std::string& arrayKey, int& size) {
    return GetJsonArraySizeByKey(ParseQuietly(text), arrayKey, size);
}

bool JsonSdk::GetJsonArrayIntValueByKey(const std::string& text, const std::string& arrayKey,
                                        const std::string& key, int& value, int index) {
    return GetJsonArrayIntValueByKey(ParseQuietly(text), arrayKey, key, value, index);
}

bool JsonSdk::GetJsonArrayStringValueByKey(const std::string& text, const std::string& arrayKey,
                                           const std::string& key, std::string& value, int index) {
    return GetJsonArrayStringValueByKey(ParseQuietly(text), arrayKey, key, value, index);
}

bool JsonSdk::GetJsonArraySizeByKey(const json& document, const std::string& arrayKey, int& size) {
    const json* array = FindArray(document, arrayKey);
    if (array == nullptr || array->size() > static_cast<std::size_t>(std::numeric_limits<int>::max())) {
        return false;
    }
    size = static_cast<int>(array->size());
    return true;
}

bool JsonSdk::GetJsonArrayIntValueByKey(const json& document, const std::string& arrayKey,
                                        const std::string& key, int& value, int index) {
    const json* member = FindMember(document, arrayKey, key, index);
    if (member == nullptr) {
        return false;
    }
    if (member->is_number_unsigned()) {
        const auto v = member->get<std::uint64_t>();
        if (v > static_cast<std::uint64_t>(std::numeric_limits<int>::max())) {
            return false;
        }
        value = static_cast<int>(v);
        return true;
    }
    if (member->is_number_integer()) {
        const auto v = member->get<std::int64_t>();
        if (v < std::numeric_limits<int>::min() || v > std::numeric_limits<int>::max()) {
            return false;
        }
        value = static_cast<int>(v);
        return true;
    }
    return false;
}

bool JsonSdk::GetJsonArrayStringValueByKey(const json& document, const std::string& arrayKey,
                                           const std::string& key, std::string& value, int index) {
    const json* member = FindMember(document, arrayKey, key, index);
    if (member == nullptr || !member->is_string()) {
        return false;
    }
    value = member->get<std::string>();
    return true;
}
