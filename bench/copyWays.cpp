// copyWays: a measurement aid for the single-file route, not part of the library. That route
// copies the file into the upload's temporary folder with QFile::copy before anything is sent;
// this times the same copy made by QFile::copy and by copy_file_range(2), the kernel's in-place
// copy, so the benchmark can say what the choice of copy costs. Qt 5.15's QFile::copy ends with
// fdatasync on the copy before it links it in under its name, so "rangesync" adds an fdatasync
// to copy_file_range, to tell the wait for the disk from the copying.
//
//     copyWays qfile|range|rangesync SOURCE TARGET      prints "<way> <seconds> <bytes>"
//
// TARGET must not exist (QFile::copy refuses to overwrite, and both ways should start equal).
#include <QElapsedTimer>
#include <QFile>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace {

bool copyWithQt(const char* source, const char* target) {
    QFile file(QString::fromLocal8Bit(source));
    // The library opens the source before copying it; do the same so both pay for one open.
    return file.open(QIODevice::ReadOnly) && file.copy(QString::fromLocal8Bit(target));
}

bool copyWithRange(const char* source, const char* target, bool sync) {
    const int in = open(source, O_RDONLY | O_CLOEXEC);
    if (in < 0)
        return false;
    struct stat status;
    const int out = fstat(in, &status) == 0
                        ? open(target, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, status.st_mode)
                        : -1;
    bool done = out >= 0;
    // The kernel may copy less than asked for (at most about 2 GiB per call, fewer on a signal),
    // so loop until the whole file is across; 0 before the end means the source shrank.
    for (off_t left = status.st_size; done && left > 0;) {
        const ssize_t moved = copy_file_range(in, nullptr, out, nullptr, size_t(left), 0);
        if (moved > 0) {
            left -= moved;
        } else if (moved < 0 && errno == EINTR) {
            continue;
        } else {
            std::fprintf(stderr, "copyWays: copy_file_range: %s\n",
                         moved == 0 ? "the source ended early" : std::strerror(errno));
            done = false;
        }
    }
    if (done && sync && fdatasync(out) != 0)
        done = false;
    if (out >= 0 && close(out) != 0)
        done = false;
    close(in);
    return done;
}

} // namespace

int main(int argc, char** argv) {
    const std::string way = argc == 4 ? argv[1] : "";
    if (way != "qfile" && way != "range" && way != "rangesync") {
        std::fprintf(stderr, "usage: copyWays qfile|range|rangesync SOURCE TARGET\n");
        return 2;
    }
    QElapsedTimer timer;
    timer.start();
    const bool done = way == "qfile" ? copyWithQt(argv[2], argv[3])
                                     : copyWithRange(argv[2], argv[3], way == "rangesync");
    const double seconds = double(timer.nsecsElapsed()) * 1e-9;
    struct stat status;
    if (!done || stat(argv[3], &status) != 0) {
        std::fprintf(stderr, "copyWays: %s could not copy %s to %s\n", argv[1], argv[2], argv[3]);
        return 1;
    }
    std::printf("%s %.6f %lld\n", argv[1], seconds, static_cast<long long>(status.st_size));
    return 0;
}
