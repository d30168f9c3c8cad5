// A tiny upload extension built against the installed SDK. Started by hand
// (not by the service) the SDK refuses to run it: exit status 2.
#include <sorvel/upload_extension.h>

#include <cstdio>

class Echo : public sv::SVUploadExtension {
  public:
    void processFragment(sv::SVBroadcastFragment fragment,
                         sv::SVUploadCompletion completion) override {
        completion({.serviceInfoJSON = "{\"bytes\": 0, \"finished\": " +
                                       std::string(fragment.finished ? "true" : "false") + "}"});
    }
};

int main() {
    Echo echo;
    const int status = sv::SVRunUploadExtension(echo);
    std::printf("SVRunUploadExtension returned %d\n", status);
    return status == 2 ? 0 : 1;
}
