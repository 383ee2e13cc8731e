// Typed JSON getters and body escaping shared by every vault and token operation.
#include "kvclient/kvjson.h"

#include <limits.h>
#include <string.h>
#include <wchar.h>

namespace {

// The parser's nesting limit bounds this recursion.
void WipeStrings(json_object *obj)
{
    switch (json_object_get_type(obj)) {
    case json_type_string:
        SecureZeroMemory(const_cast<char *>(json_object_get_string(obj)),
                         static_cast<size_t>(json_object_get_string_len(obj)));
        break;
    case json_type_object: {
        json_object_object_foreach(obj, name, member)
        {
            (void)name;
            WipeStrings(member);
        }
        break;
    }
    case json_type_array:
        for (size_t i = 0, n = json_object_array_length(obj); i < n; i++)
            WipeStrings(json_object_array_get_idx(obj, i));
        break;
    default:
        break;
    }
}

} // namespace

void KVCJsonWipePut(json_object *obj)
{
    if (!obj)
        return;
    WipeStrings(obj);
    json_object_put(obj);
}

KVCJsonDoc KVCJsonParse(const char *pszText)
{
    if (!pszText)
        return nullptr;
    const size_t cchText = strlen(pszText);
    if (cchText >= INT_MAX / 2)
        return nullptr;
    json_tokener *tok = json_tokener_new();
    if (!tok)
        return nullptr;
    // Strings are gathered in the tokener's buffer; grown by reallocation it would leave copies
    // of a token in freed memory, so it starts as large as the whole text.
    struct printbuf *pb = tok->pb;
    json_object *obj = nullptr;
    if (printbuf_memset(pb, 0, 0, static_cast<int>(cchText) + 1) >= 0) {
        printbuf_reset(pb);
        // With the terminator, as json_tokener_parse does, so that a text ending in a number ends.
        obj = json_tokener_parse_ex(tok, pszText, static_cast<int>(cchText) + 1);
        if (json_tokener_get_error(tok) != json_tokener_success) {
            KVCJsonWipePut(obj);
            obj = nullptr;
        }
    }
    SecureZeroMemory(pb->buf, static_cast<size_t>(pb->size));
    json_tokener_free(tok);
    return KVCJsonDoc(obj);
}

json_object *KVCJsonMember(json_object *obj, const char *pszName, json_type type)
{
    json_object *member = nullptr;
    if (!obj || !json_object_is_type(obj, json_type_object) || !json_object_object_get_ex(obj, pszName, &member))
        return nullptr;
    return json_object_is_type(member, type) ? member : nullptr;
}

const char *KVCJsonGetString(json_object *obj, const char *pszName)
{
    json_object *member = KVCJsonMember(obj, pszName, json_type_string);
    return member ? json_object_get_string(member) : nullptr;
}

int KVCJsonIsTrue(json_object *obj, const char *pszName)
{
    json_object *member = KVCJsonMember(obj, pszName, json_type_boolean);
    return member && json_object_get_boolean(member) ? 1 : 0;
}

int KVCJsonCatEscaped(BldStr *pstr, const WCHAR *pszText)
{
    if (!pstr || !pszText)
        return 0;
    for (const WCHAR *p = pszText; *p; p++) {
        WCHAR one[2] = {*p, 0};
        const WCHAR *piece = one;
        WCHAR escaped[8];
        switch (*p) {
        case L'"': piece = L"\\\""; break;
        case L'\\': piece = L"\\\\"; break;
        case L'\n': piece = L"\\n"; break;
        case L'\r': piece = L"\\r"; break;
        case L'\t': piece = L"\\t"; break;
        default:
            if (*p < 0x20) {
                swprintf(escaped, 8, L"\\u%04x", static_cast<unsigned>(*p));
                piece = escaped;
            }
        }
        if (!BldStrCat(pstr, piece))
            return 0;
    }
    return 1;
}
