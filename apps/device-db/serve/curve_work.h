// SPDX-License-Identifier: MIT
#ifndef DEVICE_DB_CURVE_WORK_H
#define DEVICE_DB_CURVE_WORK_H

#include "serve/work.h"

namespace device_db
{

/// The picture of a series, and its figures.
std::unique_ptr<Work> curveWork(std::shared_ptr<ServedTable> table, const PictureRange &range);

/// Takes single rows from everywhere in a series, for a first look.
Status readDots(const Database &database, ServedTable &table);

} // namespace device_db

#endif
