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
    // What entriesOf gives for these files ("x path": an executable, "r path" another file, "l path" a link), in
    // this order, each after the directories above it that no earlier file brought.
    auto listing = [](const QStringList& files) {
        QStringList entries;
        for (const QString& file : files) {
            const QString path = "./" + file.mid(2);
            for (int slash = path.indexOf('/', 2); slash > 0; slash = path.indexOf('/', slash + 1))
                if (!entries.contains("drwxr-xr-x root/root " + path.left(slash + 1)))
                    entries << "drwxr-xr-x root/root " + path.left(slash + 1);
            const QString mode = file[0] == 'x' ? "-rwxr-xr-x" : file[0] == 'l' ? "lrwxrwxrwx" : "-rw-r--r--";
            entries << mode + " root/root " + path;
        }
        return entries.join('\n');
    };
    const QString unit = "r lib/systemd/system/nxindexer.", lib = "usr/lib/TalvexSuite/lib/",
                  doc = "r usr/share/doc/nxindexer";
    EXPECT_EQ(entriesOf(deb),
              listing({unit + "service", unit + "timer", "l usr/bin/nxinspect", "x usr/lib/TalvexSuite/bin/nxindexer",
                       "x usr/lib/TalvexSuite/bin/nxinspect", "l " + lib + "libnxindex.so.1",
                       "r " + lib + "libnxindex.so.1.0.0", doc + "/changelog.gz", doc + "/copyright",
                       "r usr/share/man/man1/nxinspect.1.gz", "r usr/share/man/man8/nxindexer.8.gz"}));
    // The development package: header, static library, link and pkg-config file under the root, and a link
    // from the system's pkg-config directory to the latter.
    const QString dev = QString(deb).replace("/nxindexer_", "/nxindexer-dev_"),
                  pcDir =
                      "usr/lib/" + QFileInfo(QString::fromLocal8Bit(NXPKG_PKGCONFIG_LINK_DIR)).dir().dirName() + "/";
    EXPECT_EQ(entriesOf(dev),
              listing({"r usr/lib/TalvexSuite/include/nxindex.h", "r " + lib + "libnxindex.a",
                       "l " + lib + "libnxindex.so", "r " + lib + "pkgconfig/nxindex.pc",
                       "l " + pcDir + "pkgconfig/nxindex.pc", doc + "-dev/changelog.gz", doc + "-dev/copyright"}));
    ASSERT_EQ(run("dpkg-deb", {"-x", dev, tmp + "/x"}).status, 0);
    EXPECT_EQ(QFile::symLinkTarget(tmp + "/x/" + pcDir + "pkgconfig/nxindex.pc"), root + "/lib/pkgconfig/nxindex.pc");
    EXPECT_TRUE(nxtest::readFile(root + "/lib/pkgconfig/nxindex.pc").startsWith("prefix=" + fixedRoot.toUtf8() + "\n"));
    EXPECT_EQ(run("dpkg-deb", {"-f", dev, "Package", "Depends", "Section"}).out,
              "Package: nxindexer-dev\nDepends: nxindexer (= " NXPKG_VERSION ")\nSection: libdevel\n");
    EXPECT_EQ(QFile::symLinkTarget(tmp + "/x/usr/bin/nxinspect"), root + "/bin/nxinspect");
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
        const char* call;  // the script and its action
        const char* calls;
    } steps[] = {
        {"postinst configure", "unmask nxindexer.timer\n--quiet was-enabled nxindexer.timer\nenable nxindexer.timer\n"},
        {"prerm remove", ""},
        {"postrm remove", "mask nxindexer.timer\n"},
        {"postrm purge", "purge nxindexer.timer\nunmask nxindexer.timer\n"},
    };
    for (const auto& step : steps) {
        SCOPED_TRACE(step.call);
        const QStringList call = QString(step.call).split(' ');
        const bool postinst = call[0] == "postinst";
        QFile::remove(calls);
        Output result = run(tmp + "/control/" + call[0], {call[1], ""}, env);
        EXPECT_EQ(result.status, 0) << result.err;
        EXPECT_EQ(nxtest::readFile(calls).toStdString(), step.calls);
        // Without systemd at work in the target, the timer waits for the next boot, and postinst says so.
        EXPECT_EQ(result.err.contains("nxindexer.timer was enabled but not started"), postinst) << result.err;
        if (postinst) {
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
