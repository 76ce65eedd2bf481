/*
 * plugin [LIBRARY]: loads the module while it runs, as a host does that can do without it, and
 * prints what it offers and how its send channels are configured.
 *
 * cc plugin.c $(pkg-config --cflags qxv_rtp) -ldl -o plugin
 */
#include <QXV_RTP.h>
#include <dlfcn.h>
#include <stdio.h>
#include <string.h>

/* Those of the module's functions that are used here, under their names without QXV_RTP_. */
static struct {
    void* (*Create)(int32_t);
    void (*Destroy)(void*);
    uint32_t (*GetDeviceInfo)(void*, uint8_t*, uint8_t*, uint8_t*, uint8_t*);
    uint32_t (*GetOutputChannelCount)(void);
    uint32_t (*GetConfig)(void*, uint32_t, uint32_t, RtpChannelConfig*);
} g_qxv;

/* ISO C converts no object pointer to a function pointer; POSIX lets the bytes be copied. */
static int resolve(void* library, const char* name, void* function) {
    void* const address = dlsym(library, name);
    memcpy(function, &address, sizeof(address));
    return address != NULL;
}

int main(int argc, char** argv) {
    void* const library = dlopen(argc > 1 ? argv[1] : "libQXV_RTP.so", RTLD_NOW | RTLD_LOCAL);
    if (library == NULL || !resolve(library, "QXV_RTP_Create", &g_qxv.Create) ||
        !resolve(library, "QXV_RTP_Destroy", &g_qxv.Destroy) ||
        !resolve(library, "QXV_RTP_GetDeviceInfo", &g_qxv.GetDeviceInfo) ||
        !resolve(library, "QXV_RTP_GetOutputChannelCount", &g_qxv.GetOutputChannelCount) ||
        !resolve(library, "QXV_RTP_GetConfig", &g_qxv.GetConfig)) {
        fprintf(stderr, "plugin: %s\n", dlerror());
        return 1;
    }
    void* const module = g_qxv.Create(0);
    uint8_t low = 0;
    if (!g_qxv.GetDeviceInfo(module, NULL, NULL, &low, NULL)) {
        fprintf(stderr, "plugin: the module could not set up its table\n");
        return 1;
    }
    printf("raw %s, RTP %s, IPv6 %s\n", low & QXV_RTP_CAN_RAW ? "yes" : "no",
           low & QXV_RTP_CAN_RTP ? "yes" : "no", low & QXV_RTP_CAN_IPV6 ? "yes" : "no");
    RtpChannelConfig config;
    for (uint32_t channel = 0; channel < g_qxv.GetOutputChannelCount(); ++channel)
        if (g_qxv.GetConfig(module, QXV_RTP_SEND, channel, &config))
            printf("send %u: %s port %u\n", channel, config.RemoteAddress, config.Port);
    g_qxv.Destroy(module);
    return dlclose(library) == 0 ? 0 : 1; /* all channels have ended: none was started */
}
