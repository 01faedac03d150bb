// Writes to a directory server that went away must not kill the caller.
// libldap writes with plain send(), so a server closing its end while a
// request is on the way raises SIGPIPE, whose default action ends the whole
// process: an agent would die because its directory restarted.  Every
// connection gets a socket layer that sends with MSG_NOSIGNAL instead; the
// failed write then comes back as a lost connection, which failover handles.
#include "platform/ldap_client_internal.h"

#include <cstdint>

#include <sys/socket.h>

namespace zel::platform {

namespace {

ber_slen_t read_below(Sockbuf_IO_Desc *sbiod, void *buf, ber_len_t len) {
    return LBER_SBIOD_READ_NEXT(sbiod, buf, len);
}

// The layer keeps its connection's socket, as found when it was set up,
// in its private word (the descriptor plus one: zero when it was unknown).
void *kept_socket(ber_socket_t fd) { return reinterpret_cast<void *>(static_cast<intptr_t>(fd) + 1); }

int keep_socket(Sockbuf_IO_Desc *sbiod, void *arg) {
    sbiod->sbiod_pvt = arg;
    return 0;
}

// The buffer's socket, asked for: -1 when it has none.
[[gnu::noinline]] ber_socket_t socket_of(Sockbuf *sb) {
    ber_socket_t fd = -1;
    return ::ber_sockbuf_ctrl(sb, LBER_SB_OPT_GET_FD, &fd) == 1 ? fd : -1;
}

ber_slen_t send_quietly(Sockbuf_IO_Desc *sbiod, void *buf, ber_len_t len) {
    ber_socket_t fd = static_cast<ber_socket_t>(reinterpret_cast<intptr_t>(sbiod->sbiod_pvt) - 1);
    if (fd < 0 && (fd = socket_of(sbiod->sbiod_sb)) < 0) return -1;
    return ::send(fd, buf, len, MSG_NOSIGNAL);
}

// Only the socket's own layers lie below (see kQuietLevel): the TCP socket
// (the library opens ldap:// and ldaps:// connections only), and libldap's
// debug layer, which passes a control on to it; the socket answers none.  Layers above that answer one (TLS telling that it holds
// data already read) do so before it reaches this layer.  So nothing is
// passed on: every read asks whether data is ready, and that question
// would otherwise go down two more layers only to be answered no.
int answer_no_control(Sockbuf_IO_Desc *, int, void *) { return 0; }

Sockbuf_IO quiet_io = {keep_socket, nullptr, answer_no_control, read_below, send_quietly, nullptr};

// Between the socket (level 10) and TLS (level 20): TLS records pass through
// it too, and it sorts there whenever libldap adds its own layers.
constexpr int kQuietLevel = (LBER_SBIOD_LEVEL_PROVIDER + LBER_SBIOD_LEVEL_TRANSPORT) / 2;

int on_connect(LDAP *, Sockbuf *sb, LDAPURLDesc *, struct sockaddr *, struct ldap_conncb *) {
    // The socket is in place by now: the layer keeps it rather than ask the
    // buffer for it at every send.
    return ::ber_sockbuf_add_io(sb, &quiet_io, kQuietLevel, kept_socket(socket_of(sb))) == 0 ? 0 : -1;
}

void on_close(LDAP *, Sockbuf *, struct ldap_conncb *) {}

ldap_conncb quiet_connect{on_connect, on_close, nullptr};

}  // namespace

bool send_without_sigpipe(LDAP *ld) {
    return ::ldap_set_option(ld, LDAP_OPT_CONNECT_CB, &quiet_connect) == LDAP_OPT_SUCCESS;
}

}  // namespace zel::platform
