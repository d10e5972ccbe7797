// SPDX-License-Identifier: MIT
#include "serve/page.h"

#ifdef DEVICE_DB_PAGE
// The assembler takes the file as it is: no tool of Qt, whose names differ from version to version, and no copy.
__asm__(".pushsection .rodata\n"
        ".global device_db_page, device_db_page_end\n"
        ".hidden device_db_page, device_db_page_end\n"
        "device_db_page:\n"
        ".incbin \"" DEVICE_DB_PAGE "\"\n"
        "device_db_page_end:\n"
        ".popsection\n");

extern "C" {
extern const char device_db_page[];
extern const char device_db_page_end[];
}
#endif

namespace device_db
{

QByteArray viewerPage()
{
#ifdef DEVICE_DB_PAGE
    return QByteArray::fromRawData(device_db_page, int(device_db_page_end - device_db_page));
#else
    return QByteArray();
#endif
}

} // namespace device_db
