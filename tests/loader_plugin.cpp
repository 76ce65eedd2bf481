// A library that waits for a thread's work while it is being loaded, and again while it is
// unloaded.
#include <dlfcn.h>

#include <thread>

static void Work() {
    std::thread(*static_cast<void (**)()>(dlsym(RTLD_DEFAULT, "g_PluginWork"))).join();
}

__attribute__((constructor)) static void Load() {
    Work();
}

__attribute__((destructor)) static void Unload() {
    Work();
}
