// A "ZvDumpFile.dll" without the export.

extern "C" __attribute__((visibility("default"))) int SomethingElse() {
    return 0;
}
