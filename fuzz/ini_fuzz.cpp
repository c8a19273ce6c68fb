// Feeds arbitrary bytes to the ini parse core as a whole file body: marked
// UTF-16, odd lengths, zeros, control bytes, endless lines and any option
// name with any value. Nothing may read past the input, hang or leak; the
// values it sets stay in the table from one input to the next, as they do
// when one ini file is read after another.
#include "config/upnp_ini.h"

#include <cstddef>
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    upnp_ini_parse(data, size);
    return 0;
}
