// SPDX-License-Identifier: MIT
//
// Runs the commands of each file in transcripts/, and of the guide, and compares what they print with what stands
// there. A line that begins with "$ " is a command for bash; behind it stands its output, standard error included, and
// "? N" when it ends with N and not 0. The commands of one file share a folder, which holds a copy of data/. In the
// guide these are the blocks marked "console". Rates are not compared.
//
// With DEVICE_DB_TRANSCRIPTS=write the files are written anew: look at the difference before it is committed.
#include "text_literal.h"

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>

#include <gtest/gtest.h>

namespace
{

const QString folderOfTranscripts = QString::fromLocal8Bit(APPS_DATA) + "/transcripts"_q;
const QString guide = QString::fromLocal8Bit(APPS_DATA) + "/../../docs/device-db.md"_q;

std::vector<std::string> transcripts()
{
    std::vector<std::string> names;
    for (const QString &file : QDir(folderOfTranscripts).entryList({"*.txt"_q}, QDir::Files, QDir::Name))
        names.push_back(file.left(file.size() - 4).toStdString());
    names.push_back("guide");
    return names;
}

class Transcript : public ::testing::TestWithParam<std::string>
{
protected:
    void SetUp() override
    {
        const QDir data(QString::fromLocal8Bit(APPS_DATA) + "/data"_q);
        for (const QString &file : data.entryList(QDir::Files))
            ASSERT_TRUE(QFile::copy(data.filePath(file), m_folder.filePath(file)));
    }

    /// The output of a command, and its exit code when it is not 0.
    QByteArray run(const QByteArray &command)
    {
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        for (const char *name : {"PAGER", "LESS", "NO_COLOR", "COLUMNS", "LC_ALL", "LANG"})
            environment.remove(QString::fromLatin1(name));
        environment.insert("LC_ALL"_q, "C.UTF-8"_q);
        environment.insert("TZ"_q, "UTC"_q);
        environment.insert("PATH"_q, QFileInfo(QString::fromLocal8Bit(DEVICE_DB)).absolutePath() + ":"_q +
                                         environment.value("PATH"_q));
        environment.insert("DEVICE_DATABASE_LIBRARY"_q, QString::fromLocal8Bit(DEVICE_DATABASE_LIBRARY));
        QProcess process;
        process.setWorkingDirectory(m_folder.path());
        process.setProcessEnvironment(environment);
        process.setProcessChannelMode(QProcess::MergedChannels);
        process.start("bash"_q, {"-c"_q, QString::fromUtf8(command)});
        EXPECT_TRUE(process.waitForFinished(120000)) << command.constData();
        EXPECT_EQ(process.exitStatus(), QProcess::NormalExit) << command.constData();
        QByteArray output = process.readAll();
        if (process.exitCode() != 0)
            output += "? " + QByteArray::number(process.exitCode()) + '\n';
        return output;
    }

private:
    QTemporaryDir m_folder;
};

QByteArray withoutRates(const QByteArray &line)
{
    static const QRegularExpression rate("[0-9,]+ a second"_q);
    return QString::fromUtf8(line).replace(rate, "N a second"_q).toUtf8();
}

TEST_P(Transcript, IsWhatTheCommandsPrint)
{
    const bool isGuide = GetParam() == "guide";
    QFile file(isGuide ? guide : folderOfTranscripts + "/"_q + QString::fromStdString(GetParam()) + ".txt"_q);
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    const QByteArray expected = file.readAll();
    file.close();
    QList<QByteArray> wanted = expected.split('\n');
    if (wanted.last().isEmpty())
        wanted.removeLast();
    QByteArray printed;
    int commands = 0;
    bool inBlock = !isGuide;
    for (const QByteArray &line : wanted) {
        if (isGuide && line.startsWith("```"))
            inBlock = line == "```console";
        if (inBlock && line.startsWith("$ ")) {
            ++commands;
            printed += line + '\n' + run(line.mid(2));
        } else if (!inBlock || line.startsWith("# ") || line.startsWith("```")) {
            printed += line + '\n'; // text, or a remark
        }
    }
    EXPECT_GT(commands, 0);
    if (qgetenv("DEVICE_DB_TRANSCRIPTS") == "write") {
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        ASSERT_EQ(file.write(printed), printed.size());
        return;
    }
    // Line by line, so that a failure shows the line and not two long texts.
    const QList<QByteArray> got = printed.split('\n');
    QByteArray command;
    for (int i = 0; i < std::max(wanted.size(), got.size() - 1); ++i) {
        if (wanted.value(i).startsWith("$ "))
            command = wanted.value(i);
        ASSERT_EQ(withoutRates(got.value(i)).toStdString(), withoutRates(wanted.value(i)).toStdString())
            << "line " << i + 1 << " of " << qPrintable(file.fileName()) << ", behind " << command.constData();
    }
}

INSTANTIATE_TEST_SUITE_P(Files, Transcript, ::testing::ValuesIn(transcripts()),
                         [](const auto &parameter) { return parameter.param; });

} // namespace
