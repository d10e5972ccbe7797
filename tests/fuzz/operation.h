// SPDX-License-Identifier: MIT
#pragma once

#include "input.h"
#include "sandbox.h"

/// The number of operations that call() knows.
const int OperationCount = 30;

/// Calls operation `which` (0 to OperationCount - 1) on the store with arguments from the input, and holds its
/// outputs to what is promised whatever the arguments: lists only grow, except that of findDataByTime().
void call(int which, interface_data_base &store, Kind kind, Input &input);

/// Every query with arguments that let all rows of the table through.
void readEverything(interface_data_base &store, Kind kind, const QString &table);
