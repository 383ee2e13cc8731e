// Reading the vault's and the token services' JSON answers, and writing request bodies.
// Getters treat a missing member and a member of the wrong type alike: absent.
#pragma once

#include <json-c/json.h>

#include <memory>

#include "support/bldstr.h"

// Zeroes the text of every string in the tree, then releases it with json_object_put. Answers
// carry tokens, plaintext and private-key members, and json-c frees its copies without wiping.
void KVCJsonWipePut(json_object *obj);

struct KVCJsonPut {
    void operator()(json_object *p) const { KVCJsonWipePut(p); }
};
// Owns a parsed document; its strings are wiped when it is released.
using KVCJsonDoc = std::unique_ptr<json_object, KVCJsonPut>;

// Null for null text or text that is not JSON. The parser's own buffer is made as large as the
// text at the start (so it is never moved, leaving a copy behind) and wiped before it is freed.
KVCJsonDoc KVCJsonParse(const char *pszText);

// The member, only when it has the given type; null otherwise (and for a null object).
json_object *KVCJsonMember(json_object *obj, const char *pszName, json_type type);
// The member's text when it is a JSON string; null otherwise.
const char *KVCJsonGetString(json_object *obj, const char *pszName);
// 1 only for a JSON boolean true: json-c's own getter reads any non-empty string as true.
int KVCJsonIsTrue(json_object *obj, const char *pszName);

// Appends pszText to pstr as the inside of a JSON string: quotes, backslashes and control
// characters escaped. 1 on success.
int KVCJsonCatEscaped(BldStr *pstr, const WCHAR *pszText);
