#pragma once
// Typed reads of one member of the objects in a top-level array of a JSON text. Each read is false if
// the text is no JSON object, the array or the member is missing, or the member has another type.

#include <string>

#include <nlohmann/json.hpp>

class JsonSdk {
  public:
    static bool GetJsonArraySizeByKey(const std::string& json, const std::string& arrayKey, int& size);
    // Integers only (not floats, not strings), and only those that fit an int.
    static bool GetJsonArrayIntValueByKey(const std::string& json, const std::string& arrayKey,
                                          const std::string& key, int& value, int index);
    static bool GetJsonArrayStringValueByKey(const std::string& json, const std::string& arrayKey,
                                             const std::string& key, std::string& value, int index);

    // The same reads on a document parsed once (a discarded parse reads as no object), for callers
    // that walk a whole array.
    static bool GetJsonArraySizeByKey(const nlohmann::json& document, const std::string& arrayKey, int& size);
    static bool GetJsonArrayIntValueByKey(const nlohmann::json& document, const std::string& arrayKey,
                                          const std::string& key, int& value, int index);
    static bool GetJsonArrayStringValueByKey(const nlohmann::json& document, const std::string& arrayKey,
                                             const std::string& key, std::string& value, int index);
};
