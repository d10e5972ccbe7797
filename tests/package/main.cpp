// SPDX-License-Identifier: MIT
#include <database.h>
#include <interface_data_base.h>

int main()
{
    interface_data_base *store = device_createDB(QLatin1String("historyDB"));
    const int code = store ? store->openDB(QLatin1String(":memory:")) : 1;
    device_closeDB(store);
    return code;
}
