// Typed JSON getters and body escaping shared by every vault and token operation.
#include "kvclient/kvjson.h"

#include <wchar.h>

KVCJsonDoc KVCJsonParse(const char *pszText)
{
    if (!pszText)
        return nullptr;
    return KVCJsonDoc(json_tokener_parse(pszText));
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
