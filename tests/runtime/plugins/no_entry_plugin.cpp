// A shared object that is no plugin: it lacks the host's entries.

extern "C" __attribute__((visibility("default"))) int x3InitializePlugin(const void*) {
    return 1;
}
