// SPDX-License-Identifier: MIT
#ifndef STOREFILE_ERROR_H
#define STOREFILE_ERROR_H

#include "device/result.h"

namespace device_db
{

using device::Error;
using device::Result;
using device::Status;

/// A failure in this library's own words. `input`: what it is about, mostly a file; `cause` ends with the remedy.
Error failure(const QString &input, const QString &cause);

/// One line for people: the input, the cause and the remedy. Texts in it are those of the file, unescaped.
QString oneLine(const Error &error);

} // namespace device_db

#endif
