#pragma once

// Keys that requests and answers share.

constexpr const char* kDeviceGuidKey = "GUID";
constexpr const char* kObjectIdKey = "ObjectId";
constexpr const char* kDescriptionKey = "_DB_ATTR_DESCRIPTION_";
constexpr const char* kPriorityKey = "_DB_ATTR_PRIORITY_";
constexpr const char* kRequesterKey = "_DB_ATTR_REQUESTEDBY_";
constexpr const char* kNotesKey = "_DB_ATTR_NOTES_";
constexpr const char* kStateKey = "_DB_ATTR_STATUS_";
constexpr const char* kLanguageKey = "Language";
constexpr const char* kUserEmailKey = "UserEmail";
constexpr const char* kUserDomainKey = "UserDomain";
constexpr const char* kUserLoginKey = "UserLogin";
