// SPDX-License-Identifier: MIT
#include "commands/commands.h"
#include "program/program.h"
#include "storefile/temporary_file.h"

#include <QCoreApplication>

#include <clocale>
#include <csignal>
#include <cstring>

#include <langinfo.h>

int main(int argc, char **argv)
{
    // File names, cells and the terminal are UTF-8; without a locale that says so Qt 5 would lose letters.
    if (!std::setlocale(LC_CTYPE, "") || std::strcmp(nl_langinfo(CODESET), "UTF-8") != 0) {
        qputenv("LC_ALL", "C.UTF-8");
        std::setlocale(LC_CTYPE, "C.UTF-8");
    }
    std::signal(SIGPIPE, SIG_IGN); // a pager that was quit, `| head`: writing fails instead
    QCoreApplication application(argc, argv);
    device_db::removeTemporaryFilesOnSignals();
    device_db::Program program;
    device_db::addCommands(program);
    return program.run(argc, argv);
}
