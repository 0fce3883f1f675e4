#include "libevrep/IQELHeaderString.h"

#include "libevrep/utf.h"

void IQELHeaderString::SetValue(const char* text) {
    if (text == nullptr)
        return;
    ansi_ = text;
    wide_ = ConvertToWide(ansi_);
}

void IQELHeaderString::SetValue(const wchar_t* text) {
    if (text == nullptr)
        return;
    wide_ = text;
    ansi_ = ConvertToNarrow(wide_);
}
