// SPDX-License-Identifier: GPL-3.0-or-later
#include "tests/support/VirtualDisplay.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <xcb/xcb.h>

#include <QProcess>
#include <QProcessEnvironment>
#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace testsupport {

namespace {

template <class T>
using Reply = std::unique_ptr<T, decltype(&std::free)>;

template <class T>
Reply<T> reply(T* r) {
    return Reply<T>(r, &std::free);
}

}  // namespace

VirtualDisplay::VirtualDisplay() {
    int pipeFds[2];
    if (::pipe(pipeFds) != 0)
        return;
    const pid_t parent = ::getpid();
    pid_ = ::fork();
    if (pid_ == 0) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (::getppid() != parent)
            ::_exit(1);
        ::close(pipeFds[0]);
        const int devNull = ::open("/dev/null", O_WRONLY);
        ::dup2(devNull, STDOUT_FILENO);
        ::dup2(devNull, STDERR_FILENO);
        const std::string fd = std::to_string(pipeFds[1]);
        ::execlp("Xvfb", "Xvfb", "-displayfd", fd.c_str(), "-screen", "0", "1024x768x24",
                 "-nolisten", "tcp", "-noreset", static_cast<char*>(nullptr));
        ::_exit(127);
    }
    ::close(pipeFds[1]);
    QByteArray number;
    char c;
    while (pid_ > 0 && ::read(pipeFds[0], &c, 1) == 1 && c != '\n')
        number += c;
    ::close(pipeFds[0]);
    if (number.isEmpty()) {
        std::fprintf(stderr, "test support: could not start Xvfb\n");
        return;
    }
    name_ = QStringLiteral(":") + QString::fromLatin1(number);
    if (!connect())
        name_.clear();
}

VirtualDisplay::~VirtualDisplay() {
    kill();
}

void VirtualDisplay::kill() {
    if (connection_) {
        xcb_disconnect(connection_);
        connection_ = nullptr;
    }
    if (pid_ > 0) {
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, nullptr, 0);
        pid_ = -1;
    }
}

void VirtualDisplay::setBackground(std::uint32_t rgb) {
    xcb_change_window_attributes(connection_, root_, XCB_CW_BACK_PIXEL, &rgb);
    xcb_clear_area(connection_, 0, root_, 0, 0, 0, 0);
    xcb_flush(connection_);
}

bool VirtualDisplay::connect() {
    connection_ = xcb_connect(name_.toLocal8Bit().constData(), nullptr);
    if (xcb_connection_has_error(connection_))
        return false;
    root_ = xcb_setup_roots_iterator(xcb_get_setup(connection_)).data->root;
    return true;
}

std::uint32_t VirtualDisplay::atom(const char* name) {
    auto r = reply(xcb_intern_atom_reply(
        connection_, xcb_intern_atom(connection_, 0, std::strlen(name), name), nullptr));
    return r ? r->atom : 0;
}

std::vector<VirtualDisplay::Window> VirtualDisplay::children(Window parent) {
    auto tree =
        reply(xcb_query_tree_reply(connection_, xcb_query_tree(connection_, parent), nullptr));
    if (!tree)
        return {};
    const xcb_window_t* first = xcb_query_tree_children(tree.get());
    return std::vector<Window>(first, first + xcb_query_tree_children_length(tree.get()));
}

std::vector<VirtualDisplay::Window> VirtualDisplay::descendants(Window ancestor) {
    std::vector<Window> out = children(ancestor);
    for (std::size_t i = 0; i < out.size(); ++i) {
        const std::vector<Window> more = children(out[i]);
        out.insert(out.end(), more.begin(), more.end());
    }
    return out;
}

QString VirtualDisplay::title(Window window) {
    const std::uint32_t netName = atom("_NET_WM_NAME");
    const std::uint32_t utf8 = atom("UTF8_STRING");
    for (const auto& [property, type] :
         {std::pair{netName, utf8},
          std::pair<std::uint32_t, std::uint32_t>{XCB_ATOM_WM_NAME, XCB_ATOM_STRING}}) {
        auto value = reply(xcb_get_property_reply(
            connection_, xcb_get_property(connection_, 0, window, property, type, 0, 1024),
            nullptr));
        if (value && xcb_get_property_value_length(value.get()) > 0) {
            return QString::fromUtf8(static_cast<const char*>(xcb_get_property_value(value.get())),
                                     xcb_get_property_value_length(value.get()));
        }
    }
    return QString();
}

bool VirtualDisplay::isViewable(Window window) {
    auto attributes = reply(xcb_get_window_attributes_reply(
        connection_, xcb_get_window_attributes(connection_, window), nullptr));
    return attributes && attributes->map_state == XCB_MAP_STATE_VIEWABLE;
}

std::vector<VirtualDisplay::Window> VirtualDisplay::viewableWindowsTitled(const QString& wanted) {
    std::vector<Window> out;
    for (Window window : descendants(root_)) {
        if (isViewable(window) && !isPopup(window) && title(window) == wanted)
            out.push_back(window);
    }
    return out;
}

bool VirtualDisplay::isMinimized(Window window) {
    const std::uint32_t netState = atom("_NET_WM_STATE");
    const std::uint32_t hidden = atom("_NET_WM_STATE_HIDDEN");
    auto value = reply(xcb_get_property_reply(
        connection_, xcb_get_property(connection_, 0, window, netState, XCB_ATOM_ATOM, 0, 32),
        nullptr));
    if (!value)
        return false;
    const auto* states = static_cast<const std::uint32_t*>(xcb_get_property_value(value.get()));
    const int count = xcb_get_property_value_length(value.get()) / 4;
    return std::find(states, states + count, hidden) != states + count;
}

bool VirtualDisplay::hasTrayManager() {
    auto owner = reply(xcb_get_selection_owner_reply(
        connection_, xcb_get_selection_owner(connection_, atom("_NET_SYSTEM_TRAY_S0")), nullptr));
    return owner && owner->owner != XCB_NONE;
}

// Qt marks its top-level windows for XEmbed too: the icon is the one inside another window.
std::optional<VirtualDisplay::Window> VirtualDisplay::dockedTrayIcon() {
    const std::uint32_t xembedInfo = atom("_XEMBED_INFO");
    for (Window topLevel : children(root_)) {
        for (Window window : descendants(topLevel)) {
            auto value = reply(xcb_get_property_reply(
                connection_,
                xcb_get_property(connection_, 0, window, xembedInfo, XCB_ATOM_ANY, 0, 2), nullptr));
            if (value && value->type != XCB_ATOM_NONE && isViewable(window))
                return window;
        }
    }
    return std::nullopt;
}

// Pop-ups are top-level windows; an embedded tray icon bypasses the window manager too, but
// inside its tray's window.
std::vector<VirtualDisplay::Window> VirtualDisplay::popupMenus() {
    std::vector<Window> out;
    for (Window window : children(root_)) {
        if (isViewable(window) && isPopup(window))
            out.push_back(window);
    }
    return out;
}

// A window that bypasses the window manager: a menu, a tooltip.
bool VirtualDisplay::isPopup(Window window) {
    auto attributes = reply(xcb_get_window_attributes_reply(
        connection_, xcb_get_window_attributes(connection_, window), nullptr));
    return attributes && attributes->override_redirect;
}

QRect VirtualDisplay::geometry(Window window) {
    auto geometry =
        reply(xcb_get_geometry_reply(connection_, xcb_get_geometry(connection_, window), nullptr));
    auto place = reply(xcb_translate_coordinates_reply(
        connection_, xcb_translate_coordinates(connection_, window, root_, 0, 0), nullptr));
    if (!geometry || !place)
        return QRect();
    return QRect(place->dst_x, place->dst_y, geometry->width, geometry->height);
}

void VirtualDisplay::requestClose(Window window) {
    xcb_client_message_event_t event{};
    event.response_type = XCB_CLIENT_MESSAGE;
    event.format = 32;
    event.window = window;
    event.type = atom("WM_PROTOCOLS");
    event.data.data32[0] = atom("WM_DELETE_WINDOW");
    event.data.data32[1] = XCB_CURRENT_TIME;
    xcb_send_event(connection_, 0, window, XCB_EVENT_MASK_NO_EVENT,
                   reinterpret_cast<const char*>(&event));
    xcb_flush(connection_);
}

QImage VirtualDisplay::grab(const QRect& wanted) {
    const xcb_screen_t* screen = xcb_setup_roots_iterator(xcb_get_setup(connection_)).data;
    const QRect area = wanted & QRect(0, 0, screen->width_in_pixels, screen->height_in_pixels);
    auto image = reply(
        xcb_get_image_reply(connection_,
                            xcb_get_image(connection_, XCB_IMAGE_FORMAT_Z_PIXMAP, root_, area.x(),
                                          area.y(), area.width(), area.height(), ~0u),
                            nullptr));
    if (!image || xcb_get_image_data_length(image.get()) < area.width() * area.height() * 4)
        return QImage();
    // A 24-bit screen keeps each pixel in 32 bits, blue first: Qt's RGB32 on a little-endian
    // machine.
    QImage out(xcb_get_image_data(image.get()), area.width(), area.height(), area.width() * 4,
               QImage::Format_RGB32);
    return out.copy();
}

bool VirtualDisplay::xdotool(const QStringList& arguments) {
    QProcess process;
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("DISPLAY"), name_);
    process.setProcessEnvironment(env);
    process.start(QStringLiteral("xdotool"), arguments);
    return process.waitForFinished(10000) && process.exitStatus() == QProcess::NormalExit &&
           process.exitCode() == 0;
}

bool VirtualDisplay::click(Window window, int button) {
    const QRect place = geometry(window);
    if (place.isEmpty())
        return false;
    return xdotool({QStringLiteral("mousemove"), QString::number(place.center().x()),
                    QString::number(place.center().y()), QStringLiteral("click"),
                    QString::number(button)});
}

}  // namespace testsupport
