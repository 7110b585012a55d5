#include "FileName.h"

#include "Text.h"
#include "posix/Utf8.h"

namespace vexfiled {
std::variant<std::vector<std::string>, Refusal> SplitName(std::string_view strName) {
    if (strName.empty()) {
        return Refusal{ERROR_INVALID_NAME, "an empty name"};
    }
    if (strName.size() > kMaxNameLength) {
        return Refusal{ERROR_FILENAME_EXCED_RANGE, Text("a name of more than ", kMaxNameLength, " bytes")};
    }
    if (strName.find('\0') != strName.npos) {
        return Refusal{ERROR_INVALID_NAME, "a name with a zero byte"};
    }
    // Java's encoding of a pair of surrogates would be another name to other programs.
    if (!vexposix::IsPlainUtf8(strName)) {
        return Refusal{ERROR_NO_UNICODE_TRANSLATION, "a name that is not UTF-8"};
    }

    std::vector<std::string> components;
    std::string_view strLast;
    for (std::string_view strRest = strName; !strRest.empty();) {
        strLast = strRest.substr(0, strRest.find('/'));
        // A name that ends in a slash ends in an empty component.
        const bool bMore = strLast.size() < strRest.size();
        strRest.remove_prefix(strLast.size() + (bMore ? 1 : 0));
        if (strLast == "..") {
            return Refusal{ERROR_ACCESS_DENIED, "\"..\" in a name"};
        }
        if (strLast.size() > kMaxComponentLength) {
            return Refusal{ERROR_FILENAME_EXCED_RANGE,
                           Text("a component of more than ", kMaxComponentLength, " bytes")};
        }
        if (!strLast.empty() && strLast != ".") {
            if (components.size() == kMaxComponents) {
                return Refusal{ERROR_FILENAME_EXCED_RANGE,
                               Text("a name with more than ", kMaxComponents, " components")};
            }
            components.emplace_back(strLast);
        }
        if (bMore && strRest.empty()) {
            strLast = {};
        }
    }
    if (strLast.empty() || strLast == ".") {
        return Refusal{ERROR_ACCESS_DENIED, "the name of a directory"};
    }
    return components;
}

}  // namespace vexfiled
