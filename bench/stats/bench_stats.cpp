// Times statistics snapshots of this machine: warm (every cache valid) and cold (a new provider,
// so every once-only and security figure is computed), counts the tools a warm snapshot starts,
// and times scrapes of prometheus-node-exporter on loopback as the reference.
//
//   bench_stats [--rounds N] [--scrapes N] [--node-exporter PATH]

#include "clock.h"
#include "linux/desktop_permission_service.h"
#include "linux/linux_system_identity.h"
#include "linux/logind_desktop_session.h"
#include "linux/system_clock.h"
#include "linux/x11_window_system.h"
#include "linux_host_probes.h"
#include "run_tool.h"
#include "system_stats_provider.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QEventLoop>
#include <QFile>
#include <QProcess>
#include <QStandardPaths>
#include <QTcpServer>
#include <QTcpSocket>
#include <QThread>
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <optional>
#include <unistd.h>
#include <vector>

using namespace Qt::StringLiterals;
using namespace tellwyn;

namespace {

double processCpuMs() {
    timespec now{};
    ::clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return double(now.tv_sec) * 1e3 + double(now.tv_nsec) / 1e6;
}

double wallMs() {
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

struct Sample {
    double wall;
    double cpu;
};

void takeSnapshot(SystemStatsProvider& provider) {
    QEventLoop loop;
    QObject context;
    provider.makeSnapshot(&context, [&](SystemStatsMessage) { loop.quit(); });
    loop.exec();
}

Sample timed(const std::function<void()>& work) {
    const double wall = wallMs();
    const double cpu = processCpuMs();
    work();
    return {wallMs() - wall, processCpuMs() - cpu};
}

double percentile(std::vector<double> values, double fraction) {
    std::sort(values.begin(), values.end());
    const auto index = static_cast<size_t>(
        std::clamp(fraction * double(values.size()) - 1.0, 0.0, double(values.size() - 1)));
    return fraction == 0.5 ? values[values.size() / 2] : values[index];
}

void report(const char* what, const std::vector<Sample>& samples) {
    std::vector<double> wall, cpu;
    for (const Sample& sample : samples) {
        wall.push_back(sample.wall);
        cpu.push_back(sample.cpu);
    }
    std::printf("%-34s n=%-5zu wall median %8.3f ms  p99 %8.3f ms   cpu median %8.3f ms  p99 %8.3f ms\n",
                what, samples.size(), percentile(wall, 0.5), percentile(wall, 0.99), percentile(cpu, 0.5),
                percentile(cpu, 0.99));
}

quint64 processCpuTicks(qint64 pid) {
    QFile stat(u"/proc/%1/stat"_s.arg(pid));
    if (!stat.open(QIODevice::ReadOnly)) {
        return 0;
    }
    const QByteArray text = stat.readAll();
    const QList<QByteArray> fields = text.mid(text.lastIndexOf(')') + 2).split(' ');
    return fields.value(11).toULongLong() + fields.value(12).toULongLong(); // utime + stime
}

// Scrapes /metrics once; the body's size, or nothing when the exporter did not answer.
std::optional<qsizetype> scrape(quint16 port) {
    QTcpSocket socket;
    socket.connectToHost(u"127.0.0.1"_s, port);
    if (!socket.waitForConnected(5000)) {
        return std::nullopt;
    }
    socket.write("GET /metrics HTTP/1.0\r\nHost: 127.0.0.1\r\n\r\n");
    QByteArray response;
    while (socket.waitForReadyRead(5000)) {
        response += socket.readAll();
    }
    response += socket.readAll();
    if (!response.startsWith("HTTP/1.")) {
        return std::nullopt;
    }
    return response.size();
}

void benchNodeExporter(const QString& program, int scrapes) {
    quint16 port = 0;
    {
        QTcpServer probe;
        probe.listen(QHostAddress::LocalHost, 0);
        port = probe.serverPort();
    }
    QProcess exporter;
    exporter.setStandardOutputFile(QProcess::nullDevice());
    exporter.setStandardErrorFile(QProcess::nullDevice());
    exporter.start(program, {u"--web.listen-address=127.0.0.1:%1"_s.arg(port)});
    if (!exporter.waitForStarted(5000)) {
        std::printf("node exporter: %s could not be started\n", qPrintable(program));
        return;
    }
    std::optional<qsizetype> body;
    for (int attempt = 0; attempt < 100 && !body; ++attempt) {
        QThread::msleep(50);
        body = scrape(port);
    }
    if (!body) {
        std::printf("node exporter: no answer on 127.0.0.1:%u\n", port);
        exporter.kill();
        exporter.waitForFinished();
        return;
    }
    // The exporter's CPU time is counted in clock ticks (10 ms): reported as the mean over all scrapes.
    const long ticksPerSecond = ::sysconf(_SC_CLK_TCK);
    std::vector<double> wall;
    const quint64 ticksBefore = processCpuTicks(exporter.processId());
    for (int i = 0; i < scrapes; ++i) {
        const double start = wallMs();
        scrape(port);
        wall.push_back(wallMs() - start);
    }
    const double cpuMean = double(processCpuTicks(exporter.processId()) - ticksBefore) * 1000.0 /
                           double(ticksPerSecond) / double(scrapes);
    std::printf("node exporter metrics body: %lld bytes\n", static_cast<long long>(*body));
    std::printf("%-34s n=%-5d wall median %8.3f ms  p99 %8.3f ms   its cpu mean %8.3f ms\n",
                "node exporter scrape", scrapes, percentile(wall, 0.5), percentile(wall, 0.99), cpuMean);
    exporter.terminate();
    exporter.waitForFinished(3000);
}

} // namespace

int main(int argc, char* argv[]) {
    QCoreApplication application(argc, argv);
    QCommandLineParser parser;
    const QCommandLineOption rounds(u"rounds"_s, u"Snapshots of each kind."_s, u"N"_s, u"1000"_s);
    const QCommandLineOption scrapes(u"scrapes"_s, u"Scrapes of the node exporter."_s, u"N"_s, u"200"_s);
    const QCommandLineOption exporter(u"node-exporter"_s, u"The node exporter's program."_s, u"PATH"_s,
                                      u"/usr/bin/prometheus-node-exporter"_s);
    parser.addOptions({rounds, scrapes, exporter});
    parser.addHelpOption();
    parser.process(application);
    const int count = std::max(1, parser.value(rounds).toInt());

    LogindDesktopSession session;
    X11WindowSystem windows;
    LinuxSystemIdentity identity;
    const std::unique_ptr<PermissionService> permissions =
        makeDesktopPermissionService(QStandardPaths::writableLocation(QStandardPaths::AppDataLocation));
    LinuxHostProbes probes(session, windows, *permissions, LinuxHostProbes::systemSources(identity));
    SystemClock clock;

    std::vector<Sample> cold;
    quint64 coldTools = 0;
    for (int i = 0; i < count; ++i) {
        const quint64 toolsBefore = toolRunsStarted();
        {
            SystemStatsProvider provider(probes, clock);
            cold.push_back(timed([&] { takeSnapshot(provider); }));
        } // waits for the provider's start-up read of the system log
        coldTools += toolRunsStarted() - toolsBefore;
    }

    SystemStatsProvider provider(probes, clock);
    takeSnapshot(provider);
    QThread::msleep(500); // the start-up read of the system log ends
    std::vector<Sample> warm;
    const quint64 toolsBefore = toolRunsStarted();
    for (int i = 0; i < count; ++i) {
        warm.push_back(timed([&] { takeSnapshot(provider); }));
    }
    const quint64 warmTools = toolRunsStarted() - toolsBefore;

    report("warm snapshot (all caches valid)", warm);
    report("cold snapshot (new provider)", cold);
    std::printf("tools started: %llu by %d warm snapshots; %llu by %d cold providers (snapshot and start-up "
                "log read)\n",
                static_cast<unsigned long long>(warmTools), count, static_cast<unsigned long long>(coldTools),
                count);
    benchNodeExporter(parser.value(exporter), std::max(1, parser.value(scrapes).toInt()));
    return 0;
}
