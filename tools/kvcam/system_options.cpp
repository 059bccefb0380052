// Parsing of the system options (system_options.h).
#include "system_options.h"

#include <cstdio>
#include <cstdlib>
#include <optional>

#include "commands.h"
#include "kvsim/diag.h"
#include "kvsim/sched.h"
#include "kvsim/testing.h"

#ifndef KVCAM_SHARED_DIR
#define KVCAM_SHARED_DIR "../shared"
#endif

namespace kvcam {
namespace {

// `--name VALUE` or `--name=VALUE` at args[*i]; advances *i past a separate
// value. nullopt when args[*i] is not this option; *missing when it is but
// has no value.
std::optional<std::string> OptionValue(std::span<const std::string_view> args, size_t* i, std::string_view name,
                                       bool* missing)
{
    std::string_view a = args[*i];
    if (a == name) {
        if (*i + 1 >= args.size()) {
            *missing = true;
            return std::string();
        }
        return std::string(args[++*i]);
    }
    if (a.size() > name.size() && a.starts_with(name) && a[name.size()] == '=') {
        return std::string(a.substr(name.size() + 1));
    }
    return std::nullopt;
}

// A bare name (no '/', no ".bin") is a camera of the shared folder.
std::string CameraConfigPath(const std::string& camera)
{
    bool isPath = camera.find('/') != std::string::npos || camera.ends_with(".bin");
    if (isPath) {
        return camera;
    }
    return kvharness::SharedCamerasDir(KVCAM_SHARED_DIR) + "/" + camera + ".cfg_desc.bin";
}

}  // namespace

const char* const kSystemOptionsHelp =
    "  --camera CFG.bin     the camera's configuration descriptor file (default: the built-in camera)\n"
    "  --device DEV.bin     its device descriptor file (default: CFG's NAME.dev_desc.bin; when\n"
    "                       there is none, a plain USB 2.0 high-speed device descriptor)\n"
    "  --camera NAME        the shared camera NAME ($KV_SHARED_DIR/cameras/NAME.*_desc.bin)\n"
    "  --registry FILE.reg  load the simulated registry from FILE before the run and save it after\n"
    "                       (created when missing)\n"
    "  --system-root DIR    the host folder that stands for \\SystemRoot\n"
    "  --seed N             seeded interleavings of the simulation: the same N, the same run\n"
    "                       (default 0: the fixed schedule)\n"
    "  --trace FILE         write the driver's debug log to FILE, each line with its virtual time\n";

ParsedSystemOptions ParseSystemOptions(std::span<const std::string_view> args)
{
    ParsedSystemOptions parsed;
    std::string camera;
    std::string device;
    std::string seed;
    for (size_t i = 0; i < args.size() && parsed.error.empty(); ++i) {
        bool missing = false;
        struct {
            std::string_view name;
            std::string* target;
        } const options[] = {{"--camera", &camera},
                             {"--device", &device},
                             {"--registry", &parsed.system.registryFile},
                             {"--system-root", &parsed.system.systemRoot},
                             {"--seed", &seed},
                             {"--trace", &parsed.traceFile}};
        bool matched = false;
        for (const auto& o : options) {
            if (std::optional<std::string> value = OptionValue(args, &i, o.name, &missing)) {
                matched = true;
                if (missing || value->empty()) {
                    parsed.error = std::string(o.name) + " needs a value";
                }
                *o.target = *value;
                break;
            }
        }
        if (!matched) {
            parsed.rest.push_back(args[i]);
        }
    }
    if (!parsed.error.empty()) {
        return parsed;
    }
    if (!seed.empty()) {
        char* end = nullptr;
        const unsigned long long value = std::strtoull(seed.c_str(), &end, 10);
        if (*end != '\0' || seed[0] == '-') {
            parsed.error = "--seed needs a number";
            return parsed;
        }
        parsed.seed = value;
    }
    if (!device.empty() && camera.empty()) {
        parsed.error = "--device needs --camera";
        return parsed;
    }
    if (!camera.empty()) {
        const std::string config = CameraConfigPath(camera);
        bool deviceBuilt = false;
        parsed.system.camera = kvharness::LoadCameraFiles(config, device, &parsed.inputError, &deviceBuilt);
        if (deviceBuilt) {
            parsed.notes.push_back("no device descriptor for " + config +
                                   "; using a plain USB 2.0 high-speed device descriptor");
        }
    }
    return parsed;
}

bool TakeJsonOnly(ParsedSystemOptions& parsed)
{
    bool json = false;
    for (std::string_view a : parsed.rest) {
        if (a == "--json") {
            json = true;
        } else if (parsed.error.empty()) {
            parsed.error = "unexpected argument '" + std::string(a) + "'";
        }
    }
    return json;
}

int RunOnSystem(const char* command, const ParsedSystemOptions& parsed,
                const std::function<bool(kvharness::System&)>& body)
{
    if (!parsed.error.empty()) {
        std::fprintf(stderr, "kvcam %s: %s (try kvcam %s --help)\n", command, parsed.error.c_str(), command);
        return kExitUsage;
    }
    if (!parsed.inputError.empty()) {
        std::fprintf(stderr, "kvcam %s: %s\n", command, parsed.inputError.c_str());
        return kExitFailure;
    }
    for (const std::string& note : parsed.notes) {
        std::fprintf(stderr, "kvcam: %s\n", note.c_str());
    }
    bool ok = false;
    {
        kvharness::System system(parsed.system);
        if (parsed.seed) {
            kvsim::SetSeed(*parsed.seed);
        }
        if (!parsed.traceFile.empty()) {
            kvsim::SetTraceFile(parsed.traceFile);
        }
        if (system.Boot()) {
            ok = body(system);
        }
        ok = system.Shutdown() && ok;
        for (const std::string& e : system.errors()) {
            std::fprintf(stderr, "kvcam %s: %s\n", command, e.c_str());
        }
    }
    for (const std::string& problem : kvsim::RunEndOfTestChecks()) {
        std::fprintf(stderr, "kvcam %s: simulation: %s\n", command, problem.c_str());
        ok = false;
    }
    if (!parsed.traceFile.empty()) {
        kvsim::SetTraceFile("");
    }
    return ok ? kExitOk : kExitFailure;
}

}  // namespace kvcam
