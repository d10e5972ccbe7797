// SPDX-License-Identifier: MIT
#ifndef DEVICE_DB_PAGE_H
#define DEVICE_DB_PAGE_H

#include <QByteArray>

namespace device_db
{

/// The viewer, viewer/viewer.html as it was when this program was built; empty if there was none. Not copied.
QByteArray viewerPage();

/// What the commands say when there is none.
constexpr const char *noPage = "this device-db was built without the page; build it with viewer/viewer.html in place";

} // namespace device_db

#endif
