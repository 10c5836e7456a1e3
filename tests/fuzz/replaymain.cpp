// A main() for the fuzz targets without libFuzzer: runs the target once on
// every file named on the command line, as a libFuzzer binary does with file
// arguments. The normal suite replays the seed corpora with it.
#include <QByteArray>
#include <QFile>

#include <cstdint>
#include <cstdio>

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv);
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

int main(int argc, char* argv[])
{
    LLVMFuzzerInitialize(&argc, &argv);
    for (int i = 1; i < argc; ++i) {
        QFile file(QString::fromLocal8Bit(argv[i]));
        if (!file.open(QIODevice::ReadOnly)) {
            std::fprintf(stderr, "Can not read %s\n", argv[i]);
            return 1;
        }
        const QByteArray input = file.readAll();
        std::fprintf(stderr, "Running %s (%d bytes)\n", argv[i], int(input.size()));
        LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(input.constData()), size_t(input.size()));
    }
    std::fprintf(stderr, "Ran %d inputs\n", argc - 1);
    return 0;
}
