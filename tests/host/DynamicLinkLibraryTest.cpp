// Plug-in libraries loaded at run time, and data resources embedded in modules.
#include "tessel/host/DynamicLinkLibrary.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <string>

#include "support/TestSupport.h"
#include "tessel/host/CustomResource.h"
#include "tessel/platform/DynamicLibrary.h"
#include "tessel/platform/LastError.h"
#include "tessel/platform/Process.h"

TESSEL_RESOURCE(5, "TESTDATA", TESSEL_TEST_RESOURCE_DIR "/ProgramResource.txt");

namespace {

using namespace Tessel::Platform;
using testing::HasSubstr;

const std::string kPluginPath = TESSEL_TEST_PLUGIN;
const std::string kPluginName = kPluginPath.substr(kPluginPath.rfind('/') + 1);
using Multiply = int (*)(int, int);

std::string fileText(const std::string& name) {
    std::ifstream file(std::string(TESSEL_TEST_RESOURCE_DIR) + "/" + name, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}

TEST(DynamicLinkLibrary, APlainNameIsFoundBesideTheExecutableAndItsProceduresKeptByKey) {
    // The plug-in lies beside the test program, where the dynamic linker's search does not look.
    ASSERT_EQ(LoadLibraryA(kPluginName.c_str()), nullptr);
    TesselTest::DebugOutputCapture traces;
    CDynamicLinkLibrary library;
    ASSERT_TRUE(library.LoadDynamicLibrary(kPluginName.c_str()));
    EXPECT_EQ(library.GetLibraryPath(),
              GetExecutablePath().substr(0, GetExecutablePath().rfind('/') + 1) + kPluginName);
    EXPECT_THAT(traces.joined(), HasSubstr("Loading library '" + kPluginName + "'...\n"));
    EXPECT_THAT(traces.joined(), HasSubstr("Load library '" + kPluginName + "' succeeded.\n"));

    EXPECT_EQ(library.GetProcedure(3), nullptr);
    auto multiply =
        reinterpret_cast<Multiply>(library.LoadLibraryProcedure("TesselTestPluginMultiply", 3));
    ASSERT_NE(multiply, nullptr);
    EXPECT_EQ(multiply(6, 7), 42);
    EXPECT_EQ(library.GetProcedure(3), reinterpret_cast<void*>(multiply));
    EXPECT_EQ(library.LoadLibraryProcedure("NoSuchProcedure", 4), nullptr);
    EXPECT_EQ(library.GetProcedure(4), nullptr);

    // A second load releases the first and forgets its procedures.
    ASSERT_TRUE(library.LoadDynamicLibrary(kPluginPath.c_str()));
    EXPECT_EQ(library.GetLibraryPath(), kPluginPath);  // not beside the executable: as given
    EXPECT_EQ(library.GetProcedure(3), nullptr);
}

TEST(DynamicLinkLibrary, ShortAndMissingNamesFailWithTheirTraces) {
    TesselTest::DebugOutputCapture traces;
    CDynamicLinkLibrary library;
    EXPECT_FALSE(library.LoadDynamicLibrary("a.so"));
    EXPECT_THAT(traces.joined(), HasSubstr("Library name seems to be too small 'a.so'...\n"));
    EXPECT_THAT(traces.joined(), testing::Not(HasSubstr("Loading library")));
    EXPECT_FALSE(library.LoadDynamicLibrary("libtessel_no_such_plugin.so"));
    EXPECT_THAT(traces.joined(), HasSubstr("Load library 'libtessel_no_such_plugin.so' failed.\n"));
    EXPECT_EQ(library.LoadLibraryProcedure("TesselTestPluginMultiply", 1), nullptr);
    EXPECT_EQ(library.GetLibraryPath(), "");
}

TEST(DynamicLibrary, ModulesNameTheirFilesAndFreedOnesAreRefused) {
    const HMODULE module = LoadLibraryA(kPluginPath.c_str());
    ASSERT_NE(module, nullptr);
    void* procedure = GetProcAddress(module, "TesselTestPluginMultiply");
    EXPECT_EQ(ModuleFromAddress(procedure), module);
    char path[4096];
    EXPECT_EQ(GetModuleFileNameA(module, path, sizeof path), kPluginPath.size());
    EXPECT_EQ(path, kPluginPath);
    EXPECT_EQ(GetModuleFileNameA(module, path, 4), 4u);  // cut, NUL-terminated
    EXPECT_EQ(GetLastError(), ERROR_INSUFFICIENT_BUFFER);
    EXPECT_STREQ(path, kPluginPath.substr(0, 3).c_str());
    EXPECT_EQ(GetModuleFileNameA(nullptr, path, sizeof path), GetExecutablePath().size());
    EXPECT_EQ(GetProcAddress(module, "NoSuchProcedure"), nullptr);
    EXPECT_EQ(GetLastError(), ERROR_PROC_NOT_FOUND);

    EXPECT_EQ(LoadLibraryA(kPluginPath.c_str()), module);  // a second load of the same
    EXPECT_EQ(FreeLibrary(module), TRUE);
    EXPECT_NE(GetProcAddress(module, "TesselTestPluginMultiply"), nullptr);  // one load left
    EXPECT_EQ(FreeLibrary(module), TRUE);
    EXPECT_EQ(GetProcAddress(module, "TesselTestPluginMultiply"), nullptr);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
    EXPECT_EQ(FreeLibrary(module), FALSE);
    EXPECT_EQ(FreeLibrary(nullptr), FALSE);
}

TEST(CustomResource, EmbeddedResourcesAreFoundByModuleIdAndType) {
    const HMODULE plugin = LoadLibraryA(kPluginPath.c_str());
    ASSERT_NE(plugin, nullptr);
    const struct {
        HMODULE module;
        unsigned int id;
        const char* type;
        std::string text;  // "": none
    } cases[] = {
        {nullptr, 5, "TESTDATA", fileText("ProgramResource.txt")},
        {nullptr, 0x10005, "testData", fileText("ProgramResource.txt")},  // 16 bits; any case
        {plugin, 7, "PLUGINDATA", fileText("PluginResource.txt")},
        {nullptr, 7, "PLUGINDATA", ""},
        {plugin, 5, "TESTDATA", ""},
        {nullptr, 6, "TESTDATA", ""},
        {nullptr, 5, "OTHER", ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::to_string(c.id) + " " + c.type);
        CCustomResource resource;
        ASSERT_EQ(resource.Open(c.module, c.id, c.type), c.text.empty() ? 0 : 1);
        EXPECT_EQ(resource.GetDataSize(), c.text.size());
        if (!c.text.empty()) {
            EXPECT_EQ(std::string(static_cast<const char*>(resource.GetData()), c.text.size()),
                      c.text);
        }
    }
    ASSERT_GT(fileText("PluginResource.txt").size(), 3000u);

    // The resources of a library go with it.
    CCustomResource resource;
    ASSERT_EQ(resource.Open(plugin, 7, "PLUGINDATA"), 1);
    FreeLibrary(plugin);
    EXPECT_EQ(resource.Open(plugin, 7, "PLUGINDATA"), 0);
    EXPECT_EQ(resource.GetData(), nullptr);
}

}  // namespace
