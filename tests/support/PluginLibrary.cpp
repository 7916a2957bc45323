// A small shared library that the tests load at run time: an exported procedure and a data
// resource embedded in it.
#include "tessel/platform/Resources.h"

TESSEL_RESOURCE(7, "PLUGINDATA", TESSEL_TEST_RESOURCE_DIR "/PluginResource.txt");

extern "C" __attribute__((visibility("default"))) int TesselTestPluginMultiply(int a, int b);

extern "C" int TesselTestPluginMultiply(int a, int b) {
    return a * b;
}
