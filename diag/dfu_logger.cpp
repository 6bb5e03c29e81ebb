#include "diag/dfu_logger.h"

HRESULT DfuLogger::CheckStatus(const char* stepText, HRESULT status) const {
    if (status != 0 && log != nullptr) {
        *log << stepText << " Failed with status" << static_cast<long>(status) << std::endl;
    }
    return status;
}

std::string NarrowLow8(const std::wstring& text) {
    std::string narrow;
    narrow.reserve(text.size());
    for (wchar_t unit : text)
        narrow.push_back(static_cast<char>(static_cast<unsigned>(unit) & 0xFFu));
    return narrow;
}
