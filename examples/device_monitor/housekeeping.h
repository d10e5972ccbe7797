// SPDX-License-Identifier: MIT
#pragma once

class Monitor;
class Printer;
struct Options;
struct Stores;

/// Trims the value tables, moves ended alarms to the archive, compacts the files; prints what went.
void cleanUp(const Stores &stores, Monitor &monitor, const Options &options, const Printer &printer);
