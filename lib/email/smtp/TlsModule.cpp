#include "email/smtp/TlsModule.h"

#include <dlfcn.h>

#include <memory>

namespace Email {

namespace {

const char* fileOrNull(const std::string& name) noexcept {
    return name.empty() ? nullptr : name.c_str();
}

#ifdef RETRYER_TLS
// By its name alone a program of the build finds the module that was built with it; an installed
// one finds it where it was installed.
void* openModule() {
    constexpr int kHow = RTLD_NOW | RTLD_LOCAL;
    void* const built = ::dlopen(kTlsModule, kHow);
    return built != nullptr ? built
                            : ::dlopen((std::string(RETRYER_TLS "/") + kTlsModule).c_str(), kHow);
}
#endif

// The module is never unloaded: sessions and the library's own state live until the run ends.
TlsEntry loadModule(std::string& trouble) {
#ifdef RETRYER_TLS
    void* const module = openModule();
    void* const entry = module == nullptr ? nullptr : ::dlsym(module, kTlsEntry);
    if (entry == nullptr) {
        const char* const reason = ::dlerror();
        trouble = reason == nullptr ? "no TLS module" : reason;
    }
    return reinterpret_cast<TlsEntry>(entry);
#else
    trouble = "built without TLS";
    return nullptr;
#endif
}

struct Loaded {
    std::unique_ptr<TlsContext> context;
    std::string trouble;
};

Loaded load(const std::string& authorities, const std::string& certificate) {
    Loaded loaded;
    if (const TlsEntry entry = loadModule(loaded.trouble)) {
        loaded.context.reset(
            entry(fileOrNull(authorities), fileOrNull(certificate), loaded.trouble));
    }
    return loaded;
}

} // namespace

TlsContext* tlsContext(const std::string& authorities, const std::string& certificate,
                       std::string& trouble) {
    static const Loaded loaded = load(authorities, certificate);
    trouble = loaded.trouble;
    return loaded.context.get();
}

} // namespace Email
