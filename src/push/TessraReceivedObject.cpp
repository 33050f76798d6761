#include <tessrakite/push/TessraReceivedObject.hpp>

namespace tessrakite {
namespace {

void copyMessageFields(TessraReceivedObject& out, const N& n) {
    out.renotify = n.renotify;
    out.el = n.el;
    out.ap = n.ap;
    out.an = n.an;
    out.tc = n.tc;
    out.dc = n.dc;
    out.cl = n.cl;
    out.tag = n.tag;
    out.sound = n.sound;
    out.vibrate = n.vibrate;
    out.badge = n.badge;
    out.image = n.image;
    out.body = n.body;
    out.actions = n.actions;
    out.data = n.data;
    out.silent = n.silent;
    out.taskId = n.tid;
    out.scl = n.scl;
}

}  // namespace

TessraReceivedObject::TessraReceivedObject(const Aps& push, std::string id)
    : notifId(std::move(id)), title(push.notificationBody.title), impTracker(push.notificationBody.t) {
    if (push.notificationBody.n) copyMessageFields(*this, *push.notificationBody.n);
}

TessraReceivedObject::TessraReceivedObject(const P& fromEndpoint, std::string id)
    : notifId(std::move(id)), title(fromEndpoint.t), impTracker(fromEndpoint.i) {
    copyMessageFields(*this, fromEndpoint.o);
}

}  // namespace tessrakite
