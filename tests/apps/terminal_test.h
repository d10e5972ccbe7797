// SPDX-License-Identifier: MIT
#pragma once

#include "tool_test.h"

#include <array>
#include <vector>

#include <pty.h>
#include <sys/wait.h>
#include <unistd.h>

/// Runs the tool on a terminal of its own.
class TerminalTest : public ToolTest
{
protected:
    struct Terminal {
        QByteArray type = "xterm";
        QByteArray searchPath; ///< PATH; empty: that of the tests.
        QByteArray typed;      ///< What the person types.
        QByteArray pager = {}; ///< PAGER; empty: not set.
    };

    /// What the terminal shows, both outputs together, is in `output`.
    Outcome runOnTerminal(const QStringList &arguments, const Terminal &terminal) const
    {
        std::vector<QByteArray> words{DEVICE_DB};
        for (const QString &argument : arguments)
            words.push_back(argument.toUtf8());
        std::vector<char *> pointers;
        for (QByteArray &word : words)
            pointers.push_back(word.data());
        pointers.push_back(nullptr);
        const QByteArray folder = path(""_q).toUtf8();
        int master = -1;
        const winsize size{50, 200, 0, 0};
        const pid_t child = forkpty(&master, nullptr, nullptr, &size);
        if (child == 0) {
            if (chdir(folder.constData()) != 0)
                _exit(126);
            for (const char *name : {"PAGER", "LESS", "COLUMNS", "NO_COLOR"})
                unsetenv(name);
            setenv("LC_ALL", "C.UTF-8", 1);
            setenv("DEVICE_DATABASE_LIBRARY", DEVICE_DATABASE_LIBRARY, 1);
            setenv("TERM", terminal.type.constData(), 1);
            if (!terminal.pager.isEmpty())
                setenv("PAGER", terminal.pager.constData(), 1);
            if (!terminal.searchPath.isEmpty())
                setenv("PATH", terminal.searchPath.constData(), 1);
            execv(DEVICE_DB, pointers.data());
            _exit(127);
        }
        EXPECT_EQ(::write(master, terminal.typed.constData(), size_t(terminal.typed.size())), terminal.typed.size());
        QByteArray shown;
        std::array<char, 4096> block;
        for (ssize_t count = 0; (count = ::read(master, block.data(), block.size())) > 0;)
            shown.append(block.data(), int(count));
        close(master);
        int status = 0;
        waitpid(child, &status, 0);
        return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, shown.replace("\r\n", "\n"), QByteArray()};
    }
};
