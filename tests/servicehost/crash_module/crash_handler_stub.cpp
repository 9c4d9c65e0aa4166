// A stand-in "ZvDumpFile.dll" for tests: it counts how it was called.

extern "C" {

__attribute__((visibility("default"))) int g_registerCalls = 0;
__attribute__((visibility("default"))) int g_lastSecondArgument = -1;

__attribute__((visibility("default"))) int RegisterCrashHandler(void* first, int second, void* third) {
    ++g_registerCalls;
    g_lastSecondArgument = (first == nullptr && third == nullptr) ? second : -1;
    return 1;
}
}
