/// Settings dictionaries of the host logging library: string keys holding
/// string or boolean values, handed to the set-up calls of Log.h.
#pragma once

struct Dictionary;

Dictionary* Dictionary_Create();
void Dictionary_Free(Dictionary* dictionary);
/// Removes every key.
void Dictionary_Clear(Dictionary* dictionary);

void Dict_SetString(Dictionary* dictionary, const char* key, const char* value);
void Dict_SetBool(Dictionary* dictionary, const char* key, bool value);

/// The value of @p key, or @p fallback when the key is absent. The pointer
/// stays valid until the key is set again or the dictionary is cleared.
const char* Dict_GetString(const Dictionary* dictionary, const char* key, const char* fallback);
/// The value of @p key read as a boolean ("TRUE"/"true"/"1"/"yes"), or
/// @p fallback when the key is absent.
bool Dict_GetBool(const Dictionary* dictionary, const char* key, bool fallback);
