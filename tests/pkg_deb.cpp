// The Debian package of this build tree, end to end, in one test so that one ctest run makes the package once.
#include "testsupport.h"

#include <QDir>
#include <QFileInfo>
#include <QStandardPaths>
#include <gtest/gtest.h>

#include <cstdio>

namespace {

using nxtest::Output;
using nxtest::run;

bool have(const char* tool) { return !QStandardPaths::findExecutable(tool).isEmpty(); }

TEST(PkgDeb, PackageInstallsIndexesAndKeepsData)
{
    if (!have("dpkg-deb") || !have("dpkg-shlibdeps") || !have("file") || !have("lintian"))
        GTEST_SKIP() << "making and checking the package needs dpkg-deb, dpkg-shlibdeps (dpkg-dev), file and lintian";
    QTemporaryDir dir(QDir::tempPath() + "/nxi-pkg-XXXXXX");
    const QString tmp = dir.path(), fixedRoot = "/usr/lib/TalvexSuite", root = tmp + "/x" + fixedRoot;
    Output made =
        run(NXPKG_CPACK, {"-G", "DEB", "-B", tmp + "/out", "--config", NXPKG_BINARY_DIR "/CPackConfig.cmake"});
    ASSERT_EQ(made.status, 0) << made.out << made.err;
    const QString deb =
        tmp + "/out/nxindexer_" NXPKG_VERSION "_" + run("dpkg", {"--print-architecture"}).out.trimmed() + ".deb";
    ASSERT_EQ(run("dpkg-deb", {"-x", deb, tmp + "/x"}).status, 0);
    ASSERT_EQ(run("dpkg-deb", {"-e", deb, tmp + "/control"}).status, 0);

    // "mode owner path" of every entry of a package.
    auto entriesOf = [&](const QString& package) {
        QStringList entries;
        for (const QString& line : run("dpkg-deb", {"-c", package}).out.split('\n', Qt::SkipEmptyParts)) {
            QStringList f = line.split(' ', Qt::SkipEmptyParts);
            entries << f.value(0) + " " + f.value(1) + " " + f.value(5);
        }
        return entries.join('\n');
    };
    const QString d = "drwxr-xr-x root/root ./", x = "-rwxr-xr-x root/root ./", r = "-rw-r--r-- root/root ./",
                  l = "lrwxrwxrwx root/root ./";
    const QStringList expected = {d + "lib/",
                                  d + "lib/systemd/",
                                  d + "lib/systemd/system/",
                                  r + "lib/systemd/system/nxindexer.service",
                                  r + "lib/systemd/system/nxindexer.timer",
                                  d + "usr/",
                                  d + "usr/bin/",
                                  l + "usr/bin/nxinspect",
                                  d + "usr/lib/",
                                  d + "usr/lib/TalvexSuite/",
                                  d + "usr/lib/TalvexSuite/bin/",
                                  x + "usr/lib/TalvexSuite/bin/nxindexer",
                                  x + "usr/lib/TalvexSuite/bin/nxinspect",
                                  d + "usr/lib/TalvexSuite/lib/",
                                  l + "usr/lib/TalvexSuite/lib/libnxindex.so.1",
                                  r + "usr/lib/TalvexSuite/lib/libnxindex.so.1.0.0",
                                  d + "usr/share/",
                                  d + "usr/share/doc/",
                                  d + "usr/share/doc/nxindexer/",
                                  r + "usr/share/doc/nxindexer/changelog.gz",
                                  r + "usr/share/doc/nxindexer/copyright",
                                  d + "usr/share/man/",
                                  d + "usr/share/man/man1/",
                                  r + "usr/share/man/man1/nxinspect.1.gz",
                                  d + "usr/share/man/man8/",
                                  r + "usr/share/man/man8/nxindexer.8.gz"};
    EXPECT_EQ(entriesOf(deb), expected.join('\n'));
    // The development package: header, static library, link and pkg-config file under the root, and a link
    // from the system's pkg-config directory to the latter.
    const QString dev = QString(deb).replace("/nxindexer_", "/nxindexer-dev_"),
                  pcDir =
                      "usr/lib/" + QFileInfo(QString::fromLocal8Bit(NXPKG_PKGCONFIG_LINK_DIR)).dir().dirName() + "/";
    const QStringList expectedDev = {d + "usr/",
                                     d + "usr/lib/",
                                     d + "usr/lib/TalvexSuite/",
                                     d + "usr/lib/TalvexSuite/include/",
                                     r + "usr/lib/TalvexSuite/include/nxindex.h",
                                     d + "usr/lib/TalvexSuite/lib/",
                                     r + "usr/lib/TalvexSuite/lib/libnxindex.a",
                                     l + "usr/lib/TalvexSuite/lib/libnxindex.so",
                                     d + "usr/lib/TalvexSuite/lib/pkgconfig/",
                                     r + "usr/lib/TalvexSuite/lib/pkgconfig/nxindex.pc",
                                     d + pcDir,
                                     d + pcDir + "pkgconfig/",
                                     l + pcDir + "pkgconfig/nxindex.pc",
                                     d + "usr/share/",
                                     d + "usr/share/doc/",
                                     d + "usr/share/doc/nxindexer-dev/",
                                     r + "usr/share/doc/nxindexer-dev/changelog.gz",
                                     r + "usr/share/doc/nxindexer-dev/copyright"};
    EXPECT_EQ(entriesOf(dev), expectedDev.join('\n'));
    ASSERT_EQ(run("dpkg-deb", {"-x", dev, tmp + "/x"}).status, 0);
    EXPECT_EQ(QFile::symLinkTarget(tmp + "/x/" + pcDir + "pkgconfig/nxindex.pc"),
              tmp + "/x" + fixedRoot + "/lib/pkgconfig/nxindex.pc");
    EXPECT_TRUE(nxtest::readFile(tmp + "/x" + fixedRoot + "/lib/pkgconfig/nxindex.pc")
                    .startsWith("prefix=" + fixedRoot.toUtf8() + "\n"));
    EXPECT_EQ(run("dpkg-deb", {"-f", dev, "Package", "Depends", "Section"}).out,
              "Package: nxindexer-dev\nDepends: nxindexer (= " NXPKG_VERSION ")\nSection: libdevel\n");
    EXPECT_EQ(QFile::symLinkTarget(tmp + "/x/usr/bin/nxinspect"), tmp + "/x" + fixedRoot + "/bin/nxinspect");
    Output linted = run("lintian", {"--allow-root", "--fail-on", "error,warning", deb, dev});
    EXPECT_EQ(linted.status, 0) << linted.out << linted.err;
    EXPECT_EQ(run("dpkg-deb", {"-f", deb, "Package", "Version", "Section", "Maintainer"}).out,
              "Package: nxindexer\nVersion: " NXPKG_VERSION
              "\nSection: admin\n"
              "Maintainer: Talvex endpoint team <endpoint@talvex.invalid>\n");
    QString depends = run("dpkg-deb", {"-f", deb, "Depends"}).out;
    EXPECT_TRUE(depends.startsWith("init-system-helpers") && depends.contains("libqt5core5a (>=")) << depends;

    // The maintainer scripts, with a stub deb-systemd-helper that records its calls and DPKG_ROOT off this machine.
    const QString target = tmp + "/target" + fixedRoot, calls = tmp + "/calls";
    nxtest::writeFile(tmp + "/stub/deb-systemd-helper", "#!/bin/sh\necho \"$*\" >>\"$NXPKG_CALLS\"\n");
    QFile::setPermissions(tmp + "/stub/deb-systemd-helper", QFile::ReadOwner | QFile::ExeOwner);
    const QStringList env = {"DPKG_ROOT=" + tmp + "/target", "NXPKG_CALLS=" + calls,
                             "PATH=" + tmp + "/stub:" + QString::fromLocal8Bit(qgetenv("PATH"))};
    const struct {
        const char* script;
        const char* action;
        const char* calls;
    } steps[] = {
        {"postinst", "configure",
         "unmask nxindexer.timer\n--quiet was-enabled nxindexer.timer\nenable nxindexer.timer\n"},
        {"prerm", "remove", ""},
        {"postrm", "remove", "mask nxindexer.timer\n"},
        {"postrm", "purge", "purge nxindexer.timer\nunmask nxindexer.timer\n"},
    };
    for (const auto& step : steps) {
        SCOPED_TRACE(std::string(step.script) + " " + step.action);
        QFile::remove(calls);
        Output result = run(tmp + "/control/" + step.script, {step.action, ""}, env);
        EXPECT_EQ(result.status, 0) << result.err;
        EXPECT_EQ(nxtest::readFile(calls).toStdString(), step.calls);
        // Without systemd at work in the target, the timer waits for the next boot, and postinst says so.
        EXPECT_EQ(result.err.contains("nxindexer.timer was enabled but not started"),
                  step.script == std::string("postinst"))
            << result.err;
        if (step.script == std::string("postinst")) {
            EXPECT_EQ(int(QFileInfo(target + "/db/txhost").permissions() & 0x7077), 0x7055);
            EXPECT_EQ(int(QFileInfo(target + "/logs").permissions() & 0x7077), 0x7050);
            nxtest::writeFile(target + "/db/txhost/idxn/wdx00/00.m", "index");
            nxtest::writeFile(target + "/logs/nxindexer.log", "log");
        }
    }
    EXPECT_EQ(nxtest::readFile(target + "/db/txhost/idxn/wdx00/00.m").toStdString(), "index");
    EXPECT_EQ(nxtest::readFile(target + "/logs/nxindexer.log").toStdString(), "log");

    // The unpacked programs find their root from where they stand; the indexer runs without its pauses.
    ASSERT_EQ(run(NXTOOLS_DIR "/ynsample", {root, "--types", "wdx:2,wfx:1", "--records", "20"}).status, 0);
    Output indexed = run(root + "/bin/nxindexer", {}, {"LD_PRELOAD=" NXNOPAUSE_PATH});
    EXPECT_EQ(indexed.status, 0) << indexed.err;
    EXPECT_TRUE(nxtest::logBodies(root + "/logs/nxindexer.log").contains("[TRACE]  [nxi::StartIndexer] :: ff"));
    Output verified = run(root + "/bin/nxinspect", {"verify"});
    EXPECT_EQ(verified.status, 0) << verified.err;
    EXPECT_EQ(verified.out, "wdx00: ok\nwdx01: ok\nwfx00: ok\nverify: 3 databases, no violations\n");

    for (const char* page : {"/usr/share/man/man8/nxindexer.8.gz", "/usr/share/man/man1/nxinspect.1.gz"}) {
        // gzip -n: no file name (flags 0), no time stamp.
        EXPECT_EQ(nxtest::readFile(tmp + "/x" + page).left(8).toHex().toStdString(), "1f8b080000000000") << page;
        if (!have("man"))
            continue;
        Output shown = run("man", {"-l", "--warnings=w", tmp + "/x" + page}, {"LC_ALL=C.UTF-8", "MANWIDTH=80"});
        EXPECT_EQ(shown.status, 0) << page;
        EXPECT_EQ(shown.err, "") << page;
        EXPECT_TRUE(shown.out.contains("nxindexer " NXPKG_VERSION)) << shown.out;
    }

    if (!have("systemd-analyze")) {
        printf("systemd-analyze is not installed: the units are not verified\n");
        return;
    }
    // Copies of the units that name the unpacked root let systemd-analyze check that ExecStart is the packaged program.
    QStringList units;
    for (const char* unit : {"nxindexer.service", "nxindexer.timer"}) {
        QString text = QString::fromUtf8(nxtest::readFile(tmp + "/x/lib/systemd/system/" + unit));
        EXPECT_EQ(text.contains("\nExecStart=" + fixedRoot + "/bin/nxindexer\n"), unit == QString("nxindexer.service"));
        units << tmp + "/units/" + unit;
        nxtest::writeFile(units.last(), text.replace(fixedRoot, root).toUtf8());
    }
    Output checked = run("systemd-analyze", QStringList({"verify", "--man=no"}) + units);
    EXPECT_EQ(checked.status, 0);
    EXPECT_EQ((checked.out + checked.err), "");
}

}  // namespace
