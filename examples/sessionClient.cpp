// vxexample-session-client: the session layer's client. Connects to PORT on 127.0.0.1, proves it
// holds the secret in SECRET_FILE, sends each MESSAGE and prints the reply; the client's
// destructor sends the disconnect command and closes. The plug-in is found beside the installed
// library, or in $VELTRIX_PLUGIN_DIR.
//
//   vxexample-session-client SECRET_FILE PORT MESSAGE...
#include <veltrix/session.h>

#include <iostream>
#include <string>

int main(int argc, char** argv)
{
    namespace vs = veltrix::session;
    if (argc < 4) {
        std::cerr << "usage: vxexample-session-client SECRET_FILE PORT MESSAGE...\n";
        return 2;
    }
    try {
        const vs::context plugin;
        vs::client client(plugin, vs::secret::fromFile(argv[1]));
        client.connect("127.0.0.1", argv[2]);
        for (int i = 3; i < argc; ++i) {
            client.send(argv[i]);
            const vs::bytes reply = client.receive(std::chrono::seconds(10));
            std::cout << "sent \"" << argv[i] << "\", reply \""
                      << std::string(reply.begin(), reply.end()) << "\"\n";
        }
    } catch (const vs::error& failed) {
        std::cerr << "vxexample-session-client: " << failed.what() << '\n';
        return 1;
    }
    return 0;
}
