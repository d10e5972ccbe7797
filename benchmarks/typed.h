// SPDX-License-Identifier: MIT
#pragma once

#include "files.h"
#include "workload.h"

/// The host layer's typed stores beside the wrappers: everybody has the same records and the same times.
void addTyped(std::vector<Workload> &workloads, const std::shared_ptr<Files> &files, const Sizes &sizes);
