#include "client/cli/x11_monitors.h"

#include <cstdlib>

#include "client/cli_command.h"

#ifdef SV_CLI_HAVE_XCB
#include <xcb/randr.h>
#include <xcb/xcb.h>

#include "platform/xcb_handles.h"
#endif

namespace sv::cli {

Result<std::vector<X11Monitor>> listX11Monitors() {
#ifdef SV_CLI_HAVE_XCB
    const char* display = std::getenv("DISPLAY");
    if (!display || !*display)
        return Error::make(kCLIErrorDomain, kCLIErrorNoDisplay,
                           "no X display (DISPLAY is not set)");
    int screenNumber = 0;
    XcbConnection c(xcb_connect(display, &screenNumber));
    if (!c || xcb_connection_has_error(c.get()))
        return Error::make(kCLIErrorDomain, kCLIErrorNoDisplay,
                           std::string("cannot open the X display ") + display);
    auto it = xcb_setup_roots_iterator(xcb_get_setup(c.get()));
    for (int i = 0; it.rem && i < screenNumber; ++i) xcb_screen_next(&it);
    if (!it.rem)
        return Error::make(kCLIErrorDomain, kCLIErrorNoDisplay, "the X display has no such screen");
    XcbReply<xcb_randr_query_version_reply_t> version(
        xcb_randr_query_version_reply(c.get(), xcb_randr_query_version(c.get(), 1, 5), nullptr));
    if (!version || (version->major_version == 1 && version->minor_version < 5))
        return Error::make(kCLIErrorDomain, kCLIErrorNoMonitors,
                           "the X server does not describe monitors (RandR 1.5)");
    XcbReply<xcb_randr_get_monitors_reply_t> reply(xcb_randr_get_monitors_reply(
        c.get(), xcb_randr_get_monitors(c.get(), it.data->root, 1), nullptr));
    if (!reply)
        return Error::make(kCLIErrorDomain, kCLIErrorNoMonitors,
                           "the X server did not list its monitors");
    std::vector<X11Monitor> monitors;
    std::vector<xcb_get_atom_name_cookie_t> names;
    for (auto m = xcb_randr_get_monitors_monitors_iterator(reply.get()); m.rem;
         xcb_randr_monitor_info_next(&m)) {
        monitors.push_back({"", m.data->name, m.data->x, m.data->y, m.data->width, m.data->height,
                            bool(m.data->primary)});
        names.push_back(xcb_get_atom_name(c.get(), m.data->name));
    }
    for (size_t i = 0; i < monitors.size(); ++i) {
        XcbReply<xcb_get_atom_name_reply_t> name(
            xcb_get_atom_name_reply(c.get(), names[i], nullptr));
        if (name)
            monitors[i].name.assign(xcb_get_atom_name_name(name.get()),
                                    size_t(xcb_get_atom_name_name_length(name.get())));
    }
    return monitors;
#else
    return Error::make(kCLIErrorDomain, kCLIErrorNoDisplay,
                       "this sorvel was built without X11 support");
#endif
}

}  // namespace sv::cli
