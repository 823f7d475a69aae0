// SPDX-License-Identifier: MIT
//
// How requests reach the helper: connections of local processes, each with a serial queue of its
// own on which its requests and its end are handled one at a time. Connections run side by side.

#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>

#include <sys/types.h>

#include "core/protocol/TarnvaleAdminHelperProtocol.h"
#include "platform/CodeSigning.h"

namespace tarnvale::platform {

/// A connection that a peer has opened and nobody has admitted yet.
class NewConnection {
public:
    virtual ~NewConnection() = default;

    /// The process at the other end.
    virtual const Peer& peer() const = 0;

    /// The effective user ID that the peer had when it connected.
    virtual uid_t effectiveUserID() const = 0;

    /// Has the peer checked against this requirement before every message is read; if it fails, the
    /// message isn't read. On Linux the connection then ends; on macOS that is the system's affair.
    /// False when the requirement itself isn't well-formed. On Linux the first check is made here;
    /// throws what `Code` throws if it comes to no end.
    virtual bool setCodeSigningRequirement(const std::string& requirement) = 0;

    /// The handler is called once, on the connection's queue, when the admitted connection has
    /// ended.
    virtual void setInvalidationHandler(std::function<void()> handler) = 0;
};

/// Decides on connections.
class TransportDelegate {
public:
    virtual ~TransportDelegate() = default;

    /// False turns the peer away: nothing that it sends is read. Called on any thread.
    virtual bool shouldAcceptNewConnection(NewConnection& connection) = 0;
};

/// Why the service could not be offered; what() is a whole sentence.
class TransportError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

class Transport {
public:
    virtual ~Transport() = default;

    /// Begins to take connections, on threads of its own, and to serve those that `delegate` admits
    /// with `exported`; both must outlive the process. Throws `TransportError`.
    virtual void resume(TransportDelegate& delegate, TarnvaleAdminHelperProtocol& exported) = 0;

    /// Takes no more connections, so that the process may end: those that come now wait for the
    /// next one. False, and nothing has changed, when a connection is open or has just been taken.
    virtual bool retire() = 0;

    /// The effective user ID of the connection whose request this thread is serving; nothing
    /// outside a request.
    virtual std::optional<uid_t> currentEffectiveUserID() const = 0;
};

/// The transport of this machine. `codeSigning`, which must outlive it, checks the peer before each
/// message where the system doesn't do so by itself. Defined once in platform/macos and once in
/// platform/linux.
std::unique_ptr<Transport> makeTransport(CodeSigning& codeSigning);

}  // namespace tarnvale::platform
