#include "log/Dictionary.h"

#include <map>
#include <string>

struct Dictionary {
  std::map<std::string, std::string, std::less<>> values;
};

Dictionary* Dictionary_Create() { return new Dictionary; }

void Dictionary_Free(Dictionary* dictionary) { delete dictionary; }

void Dictionary_Clear(Dictionary* dictionary) { dictionary->values.clear(); }

void Dict_SetString(Dictionary* dictionary, const char* key, const char* value) {
  dictionary->values[key] = value;
}

void Dict_SetBool(Dictionary* dictionary, const char* key, bool value) {
  dictionary->values[key] = value ? "TRUE" : "FALSE";
}

const char* Dict_GetString(const Dictionary* dictionary, const char* key, const char* fallback) {
  auto found = dictionary->values.find(key);
  return found == dictionary->values.end() ? fallback : found->second.c_str();
}

bool Dict_GetBool(const Dictionary* dictionary, const char* key, bool fallback) {
  auto found = dictionary->values.find(key);
  if (found == dictionary->values.end()) {
    return fallback;
  }
  const std::string& value = found->second;
  return value == "TRUE" || value == "true" || value == "1" || value == "yes";
}
