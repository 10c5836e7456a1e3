// libFuzzer target: the "key=value" reader of the variables and definitions
// files, and the writer that hands the store back to the print path.
#include "fuzzsupport.h"

#include "settings/variables.h"

#include <QBuffer>

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    Fuzz::initialize();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    // Only the store is used here.
    Variables& variables = Variables::instance();
    variables.clear();

    // Read twice, as the variables file and then the definitions file are.
    QBuffer input;
    input.setData(reinterpret_cast<const char*>(data), int(size));
    input.open(QIODevice::ReadOnly);
    variables.read(input);
    input.seek(0);
    variables.read(input);

    variables.safeOutput();
    variables.value(QStringLiteral("copies"));

    QBuffer output;
    output.open(QIODevice::WriteOnly);
    variables.write(output);

    // What was written reads back.
    QBuffer again;
    again.setData(output.data());
    again.open(QIODevice::ReadOnly);
    variables.clear();
    variables.read(again);
    return 0;
}
