// SPDX-License-Identifier: MIT
#pragma once

class Monitor;
class Printer;
class QDateTime;
struct Stores;

/// Reads back through the interface what the run from `start` to `end` left in the files and prints it.
void report(const Stores &stores, Monitor &monitor, const QDateTime &start, const QDateTime &end,
            const Printer &printer);
