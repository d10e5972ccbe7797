// SPDX-License-Identifier: MIT
//
// The questions that take longer than a moment.
#ifndef DEVICE_DB_ANSWERS_H
#define DEVICE_DB_ANSWERS_H

#include "serve/work.h"

namespace device_db
{

using Parameters = QList<QPair<QByteArray, QByteArray>>;

/// The work that a question makes, by its path and its parameters. An Error for a question that makes no sense.
Result<std::unique_ptr<Work>> workFor(ServedFiles &files, const QByteArray &question, const Parameters &parameters);

} // namespace device_db

#endif
