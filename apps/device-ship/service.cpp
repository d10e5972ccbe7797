// SPDX-License-Identifier: MIT
#include "service.h"

#include "shipper.h"
#include "storefile/texts.h"
#include "waker.h"

#include <QRandomGenerator>

#include <algorithm>
#include <cstdio>
#include <thread>

namespace device_ship
{

namespace
{

using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr milliseconds gather(50);       // commits of this time become one batch
constexpr milliseconds onceMore(300);    // after which a quiet file is read again: a commit may fall between two looks
constexpr milliseconds disturbed(5);     // the device writes at this moment
constexpr milliseconds neverStill(1000); // it did so for long
constexpr seconds betweenReports(10);
constexpr seconds sign(60); // of life
constexpr seconds betweenRefreshes(3600);
constexpr milliseconds longestPause(60000);

// Says a thing once, and again when it has changed.
class Speaker
{
public:
    void say(const QString &line)
    {
        if (line != m_said && !line.isEmpty())
            complain(line);
        if (line.isEmpty() && !m_said.isEmpty())
            complain(QStringLiteral("all is well again"));
        m_said = line;
    }

private:
    QString m_said;
};

} // namespace

void complain(const QString &line)
{
    std::fprintf(stderr, "device-ship: %s\n", device_db::visible(line).toUtf8().constData());
}

Result<bool> shipOnce(const Configuration &configuration)
{
    Shipper shipper(configuration);
    auto reported = Clock::now();
    for (bool more = true; more;) {
        const auto shipped = shipper.ship();
        if (!shipped) {
            (void)shipper.report(device_db::oneLine(shipped.error())); // where the archive can be reached, it says why
            return shipped.error();
        }
        more = *shipped;
        if (more && Clock::now() - reported >= betweenReports) {
            reported = Clock::now();
            if (const Status status = shipper.report(); !status)
                return status.error();
        }
        if (more && shipper.wasDisturbed())
            std::this_thread::sleep_for(disturbed);
    }
    if (const Status done = shipper.report(); !done)
        return done.error();
    if (!shipper.trouble().isEmpty())
        complain(shipper.trouble());
    return shipper.trouble().isEmpty();
}

void shipAlways(const Configuration &configuration)
{
    QStringList paths;
    for (const ConfiguredFile &file : configuration.files)
        paths << file.path;
    Waker waker(paths);
    Shipper shipper(configuration);
    Speaker speaker;
    milliseconds pause(0);
    auto reported = Clock::now() - sign;
    auto refreshed = Clock::now();
    bool quiet = false;
    for (;;) {
        auto shipped = shipper.ship();
        const auto now = Clock::now();
        if (shipped && now - reported >= (shipper.hasMoved() ? betweenReports : sign)) {
            reported = now;
            shipper.lookAgain(); // where changes are not announced, as on a network
            if (const Status status = shipper.report(); !status)
                shipped = status.error();
        }
        speaker.say(shipped ? shipper.trouble() : device_db::oneLine(shipped.error()));
        if (!shipped) {
            (void)shipper.report(device_db::oneLine(shipped.error())); // where the archive can be reached
            // With some chance in it, so that a thousand devices do not come back in the same second.
            pause = std::min(longestPause, std::max(milliseconds(500), pause * 2));
            std::this_thread::sleep_for(pause / 2 +
                                        milliseconds(QRandomGenerator::global()->bounded(int(pause.count() / 2))));
            continue;
        }
        pause = milliseconds(0);
        if (*shipped) {
            quiet = false;
            if (shipper.wasDisturbed())
                std::this_thread::sleep_for(disturbed);
            continue;
        }
        if (now - refreshed >= betweenRefreshes) {
            refreshed = now;
            shipper.refresh();
        }
        const auto untilReport =
            std::chrono::duration_cast<milliseconds>(reported + (shipper.hasMoved() ? betweenReports : sign) - now);
        if (waker.wait(shipper.wasDisturbed() ? neverStill
                       : quiet                ? std::max(milliseconds(1), untilReport)
                                              : onceMore)) {
            std::this_thread::sleep_for(gather);
            shipper.wereWritten(waker.written());
            quiet = false;
        } else {
            quiet = true;
        }
    }
}

} // namespace device_ship
