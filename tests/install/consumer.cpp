// Loads the installed plug-in and prints the SHA-256 of "abc".
#include <veltrix/vxMain.h>

#include <iostream>

namespace {

class consumer : public veltrix::vxMain
{
public:
    explicit consumer(const char* pluginDir) : dir(pluginDir) {}

    bool main(int /*argc*/, char** /*argv*/) override
    {
        api.setSearchPath(dir);
        veltrix::vxHashId id;
        veltrix::vxMd md;
        if (!LoadPlugin("openssl")) {
            return false;
        }
        LVX_CALL_OPEN(id, veltrix::vxHashId::sha256);
        LVX_CALL_OPEN(md, id);
        const bool ok = md.Init() && md.Update(std::string("abc")) && md.Final();
        std::cout << md << std::endl;
        return ok && md.PreClose() && md.Close() && md.PostClose() && id.PreClose() && id.Close() &&
               id.PostClose() && api.PreClose() && api.Close() && api.PostClose();
    }

private:
    const char* dir;
};

} // namespace

int main(int argc, char** argv)
{
    consumer app(argc > 1 ? argv[1] : "/usr/local/lib/secure");
    if (!app.InitAndRun("vxconsumer", "1.0", argc, argv)) {
        veltrix::vxBase::DumpStackTrace(std::cout);
        return 1;
    }
    return 0;
}
