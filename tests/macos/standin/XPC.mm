// SPDX-License-Identifier: MIT

#include "tests/macos/standin/XPC.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <thread>
#include <type_traits>
#include <utility>

#include <objc/runtime.h>
#include <unistd.h>

#include "tests/macos/standin/Objects.h"
#include "tests/macos/standin/objc/Runtime.h"

namespace objc = tarnvale::test::objc;

namespace tarnvale::test::standin {
namespace {

using namespace std::chrono_literals;

constexpr auto longestWait = 5s;

/// Guards all connections and listeners; held for a few lines, never while anything is called.
std::mutex& theLock() {
    static auto& lock = *new std::mutex;
    return lock;
}

/// The queues that have work, and whoever waits for them.
struct Work {
    std::mutex mutex;
    std::condition_variable changed;
    long pending = 0;

    static Work& get() {
        static auto& work = *new Work;
        return work;
    }

    void add(long count) {
        const std::lock_guard lock(mutex);
        pending += count;
        changed.notify_all();
    }
};

/// Does one thing after the other, on a thread that ends when there is nothing left.
class Queue : public std::enable_shared_from_this<Queue> {
public:
    void async(std::function<void()> work) {
        Work::get().add(1);
        const std::lock_guard lock(mutex_);
        work_.push_back(std::move(work));
        if (!std::exchange(isRunning_, true)) {
            std::thread([self = shared_from_this()] { self->run(); }).detach();
        }
    }

private:
    void run() {
        while (true) {
            std::function<void()> next;
            {
                const std::lock_guard lock(mutex_);
                if (work_.empty()) {
                    isRunning_ = false;
                    return;
                }
                next = std::move(work_.front());
                work_.pop_front();
            }
            try {
                next();
            } catch (...) {
                objc::die("an exception got into it", "a queue");
            }
            next = nullptr;
            Work::get().add(-1);
        }
    }

    std::mutex mutex_;
    std::deque<std::function<void()>> work_;
    bool isRunning_ = false;
};

/// The types of a method's or block's arguments, behind those that all methods or blocks have.
std::vector<std::string> argumentTypes(std::string_view types, std::size_t hidden) {
    std::vector<std::string> all;
    for (std::size_t i = 0; i < types.size();) {
        const auto begin = i++;
        if (i < types.size() && types[begin] == '@' && types[i] == '"') {
            i = types.find('"', i + 1) + 1;
        } else if (i < types.size() && types[begin] == '@' && types[i] == '?') {
            ++i;
            for (int depth = 0; i < types.size() && (types[i] == '<' || depth > 0); ++i) {
                depth += types[i] == '<' ? 1 : types[i] == '>' ? -1 : 0;
            }
        }
        all.emplace_back(types.substr(begin, i - begin));
        i = std::min(types.find_first_not_of("0123456789", i), types.size());
    }
    all.erase(all.begin(), all.begin() + static_cast<std::ptrdiff_t>(hidden + 1));
    return all;
}

std::vector<std::string> replyTypes(const std::string& block) {
    constexpr std::size_t around = 3;  // @?< in front
    return argumentTypes(std::string_view(block).substr(around, block.size() - around - 1), 1);
}

/// An argument as it crosses a connection.
struct Argument {
    std::uintptr_t number = 0;
    id object = nil;

    std::uintptr_t word() const {
        return object != nil ? reinterpret_cast<std::uintptr_t>((__bridge void*)object) : number;
    }
};

/// What arrives at the other end: a copy of an object, or the number in as many bits as it has.
Argument received(const std::string& type, std::uintptr_t word) {
    auto* const pointer = reinterpret_cast<void*>(word);
    if (type == "@\"NSString\"") {
        return {.object = copyOf((__bridge NSString*)pointer)};
    }
    if (type == "@\"NSData\"") {
        return {.object = copyOf((__bridge NSData*)pointer)};
    }
    if (type == "B" || type == "c") {
        return {.number = word & 0xFFU};
    }
    if (type == "q") {
        return {.number = word};
    }
    objc::die("this type cannot cross a connection", type);
}

constexpr std::size_t mostArguments = 4;
using Words = std::array<std::uintptr_t, mostArguments>;

/// A reply block. Each here takes at most two texts; what it does not take it does not see.
using ReplyBlock = void (^)(std::uintptr_t, std::uintptr_t);
using ErrorHandler = void (^)(NSError*);
using Handler = void (^)();

/// Who waits for a reply.
struct Awaited {
    ReplyBlock block = nil;
    std::vector<std::string> types;
    ErrorHandler onError = nil;
};

struct Message {
    SEL selector = nullptr;
    std::string types;
    std::vector<Argument> arguments;  ///< without the reply block
    std::uint64_t reply = 0;          ///< 0 for none
};

struct Listener {
    const std::shared_ptr<Queue> queue = std::make_shared<Queue>();
    std::string machService;  ///< or empty
    __weak NSXPCListener* object = nil;
    __weak id<NSXPCListenerDelegate> delegate = nil;
    bool isResumed = false;
    bool isInvalid = false;
};

/// One end of a connection.
struct End {
    const std::shared_ptr<Queue> queue = std::make_shared<Queue>();
    bool isClient = false;
    bool isResumed = false;
    bool isInvalid = false;

    __weak NSXPCConnection* object = nil;
    NSXPCInterface* remoteInterface = nil;
    std::optional<std::string> requirement;

    /// What it lets go of in the end.
    struct Holdings {
        NSXPCConnection* itself = nil;  ///< while it is resumed
        NSXPCInterface* exportedInterface = nil;
        id exportedObject = nil;
        Handler onInterruption = nil;
        Handler onInvalidation = nil;
        std::vector<std::function<void()>> work;  ///< to be done once it is resumed
    };
    Holdings holds;

    XPC::Process peer{0, 0};
    std::weak_ptr<End> other;
    std::string machService;           ///< that a client wants
    bool isPrivileged = false;         ///< and where it looks for it
    std::weak_ptr<Listener> listener;  ///< or the one that it has the endpoint of
    std::map<std::uint64_t, Awaited> awaited;
};

/// The services that processes other than the user's own offer, as launchd keeps them.
std::vector<std::weak_ptr<Listener>>& services() {
    static auto& services = *new std::vector<std::weak_ptr<Listener>>;
    return services;
}

template <typename T>
T valueAt(const T& place) {
    const std::lock_guard lock(theLock());
    return place;
}

/// What was there may die of this, after the lock is free: that takes it again.
template <typename T>
void put(T& place, std::type_identity_t<T> value) {
    const std::lock_guard lock(theLock());
    std::swap(place, value);
}

thread_local __unsafe_unretained NSXPCConnection* currentConnection = nil;

void fail(const std::map<std::uint64_t, Awaited>& awaited, NSInteger code) {
    @autoreleasepool {
        for (const auto& [number, one] : awaited) {
            one.onError(makeError(code, "The connection ended."));
        }
    }
}

void interrupt(const std::shared_ptr<End>& end);

/// Ends the connection at this end. It says so once, on its queue, and then never anything again.
void invalidate(const std::shared_ptr<End>& end, NSInteger code = NSXPCConnectionInvalid) {
    std::shared_ptr<End> other;
    {
        const std::lock_guard lock(theLock());
        if (std::exchange(end->isInvalid, true)) {
            return;
        }
        other = end->other.lock();
    }
    end->queue->async([end, code] {
        std::map<std::uint64_t, Awaited> awaited;
        Handler handler = nil;
        {
            const std::lock_guard lock(theLock());
            awaited = std::exchange(end->awaited, {});
            handler = end->holds.onInvalidation;
        }
        fail(awaited, code);
        if (handler != nil) {
            handler();
        }
        put(end->holds, {});
    });
    if (other != nullptr) {
        interrupt(other);
    }
}

/// The other end is gone. A client may find another one; a service's end is over, but hears of it
/// only once it is resumed.
void interrupt(const std::shared_ptr<End>& end) {
    if (!end->isClient) {
        {
            const std::lock_guard lock(theLock());
            if (!end->isResumed && !end->isInvalid) {
                end->holds.work.emplace_back([end] { invalidate(end); });
                return;
            }
        }
        invalidate(end);
        return;
    }
    end->queue->async([end] {
        std::map<std::uint64_t, Awaited> awaited;
        Handler handler = nil;
        {
            const std::lock_guard lock(theLock());
            if (end->isInvalid) {
                return;
            }
            end->other.reset();
            awaited = std::exchange(end->awaited, {});
            handler = end->holds.onInterruption;
        }
        fail(awaited, NSXPCConnectionInterrupted);
        if (handler != nil) {
            handler();
        }
    });
}

/// Whether what the other end sends may be read. If not, this end is over.
bool meetsRequirement(const std::shared_ptr<End>& end) {
    std::optional<std::string> requirement;
    {
        const std::lock_guard lock(theLock());
        requirement = end->requirement;
    }
    if (!requirement || XPC::current().isMet(*requirement).value_or(false)) {
        return true;
    }
    invalidate(end, NSXPCConnectionCodeSigningRequirementFailure);
    return false;
}

void takeReply(
    const std::shared_ptr<End>& client,
    std::uint64_t number,
    const std::optional<std::vector<Argument>>& arguments) {
    client->queue->async([client, number, arguments] {
        @autoreleasepool {
            if (arguments && !meetsRequirement(client)) {
                return;
            }
            Awaited awaited;
            {
                const std::lock_guard lock(theLock());
                const auto found = client->awaited.find(number);
                if (client->isInvalid || found == client->awaited.end()) {
                    return;
                }
                awaited = std::move(found->second);
                client->awaited.erase(found);
            }
            if (!arguments) {
                awaited.onError(makeError(NSXPCConnectionReplyInvalid, "There is no reply."));
                return;
            }
            Words words{};
            std::ranges::transform(*arguments, words.begin(), &Argument::word);
            awaited.block(words[0], words[1]);
        }
    });
}

/// One reply on its way. That it is never sent is noticed when the last block for it is gone.
class Reply {
public:
    Reply(std::shared_ptr<End> client, std::uint64_t number, std::vector<std::string> types)
        : client_(std::move(client)), number_(number), types_(std::move(types)) {}
    Reply(const Reply&) = delete;
    Reply& operator=(const Reply&) = delete;
    ~Reply() {
        if (!isSent_) {
            takeReply(client_, number_, std::nullopt);
        }
    }

    void send(const std::array<std::uintptr_t, 2>& words) {
        if (isSent_.exchange(true)) {
            objc::die("it was sent a second time", "a reply");
        }
        std::vector<Argument> arguments;
        for (std::size_t i = 0; i < types_.size(); ++i) {
            arguments.push_back(received(types_[i], words[i]));
        }
        takeReply(client_, number_, arguments);
    }

private:
    std::shared_ptr<End> client_;
    std::uint64_t number_;
    std::vector<std::string> types_;
    std::atomic<bool> isSent_ = false;
};

}  // namespace
}  // namespace tarnvale::test::standin

using namespace tarnvale::test::standin;  // NOLINT(google-build-using-namespace): it is its part

@implementation NSXPCInterface {
    const objc::Protocol* _protocol;
}

+ (NSXPCInterface*)interfaceWithProtocol:(Protocol*)protocol {
    NSXPCInterface* const interface = [NSXPCInterface new];
    interface->_protocol =
        static_cast<const objc::Protocol*>((__bridge const objc::Object*)protocol);
    return interface;
}

/// The extended types of its method of this name; empty if it has none.
- (std::string)typesOf:(SEL)selector {
    for (const auto& method : objc::items(_protocol->methods)) {
        if (method.selector->name == sel_getName(selector)) {
            return method.extendedTypes;
        }
    }
    return {};
}

@end

@interface NSXPCListenerEndpoint () {
@public
    std::shared_ptr<Listener> listener;
}
@end

@implementation NSXPCListenerEndpoint
@end

@implementation NSXPCListener {
    std::shared_ptr<Listener> _listener;
}

+ (NSXPCListener*)anonymousListener {
    return [[NSXPCListener alloc] init];
}

- (instancetype)init {
    self = [super init];
    if (self != nil) {
        _listener = std::make_shared<Listener>();
        _listener->object = self;
    }
    return self;
}

- (instancetype)initWithMachServiceName:(NSString*)name {
    self = [self init];
    if (self != nil) {
        _listener->machService = utf8Of(name);
    }
    return self;
}

- (void)setDelegate:(id<NSXPCListenerDelegate>)delegate {
    _listener->delegate = delegate;
}

- (id<NSXPCListenerDelegate>)delegate {
    return _listener->delegate;
}

- (NSXPCListenerEndpoint*)endpoint {
    NSXPCListenerEndpoint* const endpoint = [NSXPCListenerEndpoint new];
    endpoint->listener = _listener;
    return endpoint;
}

- (void)resume {
    const std::lock_guard lock(theLock());
    _listener->isResumed = true;
    if (!_listener->machService.empty()) {
        services().push_back(_listener);
    }
}

- (void)invalidate {
    const std::lock_guard lock(theLock());
    _listener->isInvalid = true;
}

@end

/// Ends a connection that nobody has any more.
struct TarnvaleEndOwner {
    std::shared_ptr<End> end = std::make_shared<End>();
    TarnvaleEndOwner() = default;
    TarnvaleEndOwner(const TarnvaleEndOwner&) = delete;
    TarnvaleEndOwner& operator=(const TarnvaleEndOwner&) = delete;
    ~TarnvaleEndOwner() { invalidate(end); }
};

@interface NSXPCConnection () {
@public
    TarnvaleEndOwner owner;
}
@end

namespace tarnvale::test::standin {
namespace {

/// Whom a client reaches; null when there is nobody. Takes the lock for granted.
std::shared_ptr<Listener> listenerFor(const End& client) {
    auto found = client.listener.lock();
    if (!client.machService.empty() && client.isPrivileged) {
        for (const auto& service : services()) {
            const auto offered = service.lock();
            if (offered != nullptr && !offered->isInvalid &&
                offered->machService == client.machService) {
                found = offered;
            }
        }
    }
    return found == nullptr || found->isInvalid || !found->isResumed ? nullptr : found;
}

void carryOut(
    NSXPCConnection* connection, const Message& message, const std::shared_ptr<End>& client) {
    const auto& service = connection->owner.end;
    NSXPCInterface* interface = nil;
    id object = nil;
    {
        const std::lock_guard lock(theLock());
        interface = service->holds.exportedInterface;
        object = service->holds.exportedObject;
    }
    std::shared_ptr<Reply> reply;
    const auto types = argumentTypes(message.types, 2);
    if (message.reply != 0) {
        reply = std::make_shared<Reply>(client, message.reply, replyTypes(types.back()));
    }
    if (interface == nil || object == nil ||
        [interface typesOf:message.selector] != message.types ||
        ![object respondsToSelector:message.selector]) {
        return;
    }

    Words words{};
    std::ranges::transform(message.arguments, words.begin(), &Argument::word);
    ReplyBlock block = nil;
    if (reply != nullptr) {
        block = ^(std::uintptr_t first, std::uintptr_t second) {
            reply->send({first, second});
        };
        words[message.arguments.size()] = reinterpret_cast<std::uintptr_t>((__bridge void*)block);
    }
    reply = nullptr;  // the block has it
    const auto* const slot = objc::findMethod(
        ((__bridge const objc::Object*)object)->isa, sel_getName(message.selector));
    currentConnection = connection;
    try {
        reinterpret_cast<void (*)(
            void*, SEL, std::uintptr_t, std::uintptr_t, std::uintptr_t, std::uintptr_t)>(
            slot->implementation)(
            (__bridge void*)object, message.selector, words[0], words[1], words[2], words[3]);
    } catch (...) {
        objc::die("an exception left it", sel_getName(message.selector));
    }
    currentConnection = nil;
}

void deliver(
    const std::shared_ptr<End>& service,
    const Message& message,
    const std::shared_ptr<End>& client) {
    const auto take = [service, message, client] {
        NSXPCConnection* connection = nil;
        {
            const std::lock_guard lock(theLock());
            if (service->isInvalid) {
                return;
            }
            connection = service->object;
        }
        if (connection != nil && meetsRequirement(service)) {
            carryOut(connection, message, client);
        }
    };
    const std::lock_guard lock(theLock());
    if (service->isResumed) {
        service->queue->async(take);
    } else if (!service->isInvalid) {
        service->holds.work.emplace_back(take);
    }
}

void offer(const std::shared_ptr<Listener>& listener, NSXPCConnection* connection) {
    bool isTaken = false;
    @autoreleasepool {
        NSXPCListener* const object = listener->object;
        const auto delegate = object.delegate;
        if (delegate != nil) {
            try {
                isTaken = [delegate listener:object shouldAcceptNewConnection:connection];
            } catch (...) {
                objc::die("an exception left it", "the listener's delegate");
            }
        }
    }
    if (!isTaken) {
        invalidate(connection->owner.end);
    }
}

/// The end at the service; null when there is none and never will be. Makes it with the first
/// message.
std::shared_ptr<End> serviceOf(const std::shared_ptr<End>& client) {
    std::shared_ptr<Listener> listener;
    {
        const std::lock_guard lock(theLock());
        if (auto end = client->other.lock()) {
            return end;
        }
        listener = listenerFor(*client);
    }
    if (listener == nullptr) {
        return nullptr;
    }
    NSXPCConnection* const connection = [NSXPCConnection new];
    const auto end = connection->owner.end;
    {
        const std::lock_guard lock(theLock());
        end->peer = client->peer;
        end->other = client;
        client->other = end;
    }
    listener->queue->async([listener, connection] { offer(listener, connection); });
    return end;
}

void send(const std::shared_ptr<End>& client, Message message, Awaited awaited) {
    static std::atomic<std::uint64_t> replies;
    {
        const std::lock_guard lock(theLock());
        if (!client->isInvalid && !client->isResumed) {
            client->holds.work.emplace_back(
                [client, message, awaited] { send(client, message, awaited); });
            return;
        }
        if (client->isInvalid) {
            if (awaited.onError != nil) {
                client->queue->async([awaited] { fail({{0, awaited}}, NSXPCConnectionInvalid); });
            }
            return;
        }
        if (awaited.block != nil) {
            message.reply = ++replies;
            client->awaited.emplace(message.reply, std::move(awaited));
        }
    }
    const auto service = serviceOf(client);
    if (service == nullptr) {
        invalidate(client);
        return;
    }
    deliver(service, message, client);
}

}  // namespace
}  // namespace tarnvale::test::standin

/// Turns what it is asked for into messages.
@interface TarnvaleProxy : NSObject {
@public
    NSXPCConnection* connection;
    ErrorHandler onError;
}
@end

@implementation TarnvaleProxy
@end

namespace tarnvale::test::standin {
namespace {

void forward(
    void* receiver,
    SEL selector,
    std::uintptr_t first,
    std::uintptr_t second,
    std::uintptr_t third,
    std::uintptr_t fourth) {
    @autoreleasepool {
        TarnvaleProxy* const proxy = (__bridge TarnvaleProxy*)receiver;
        const auto end = proxy->connection->owner.end;
        NSXPCInterface* interface = nil;
        {
            const std::lock_guard lock(theLock());
            interface = end->remoteInterface;
        }
        if (interface == nil) {
            raise("the connection has no interface of the other end");
        }
        Message message{
            .selector = selector, .types = [interface typesOf:selector], .arguments = {}};
        if (message.types.empty()) {
            raise("the other end's interface has no such method");
        }
        const Words words{first, second, third, fourth};
        auto types = argumentTypes(message.types, 2);
        Awaited awaited;
        const auto& block = words.at(types.size() - 1);
        if (block != 0) {
            awaited = {
                .block = (__bridge ReplyBlock) reinterpret_cast<void*>(block),
                .types = replyTypes(types.back()),
                .onError = proxy->onError};
        }
        types.pop_back();
        for (std::size_t i = 0; i < types.size(); ++i) {
            message.arguments.push_back(received(types[i], words[i]));
        }
        send(end, std::move(message), std::move(awaited));
    }
}

const objc::Slot forwarding{
    nullptr, nullptr, "", 0, reinterpret_cast<objc::Implementation>(&forward)};

const objc::Slot* forwardOf(objc::Object* receiver, const objc::Selector* /*selector*/) {
    const auto* const proxies = (__bridge const objc::Class*)[TarnvaleProxy class];
    return receiver->isa == proxies ? &forwarding : nullptr;
}

[[maybe_unused]] const bool forwards = (objc::setForward(&forwardOf), true);

}  // namespace
}  // namespace tarnvale::test::standin

@implementation NSXPCConnection

- (instancetype)init {
    self = [super init];
    if (self != nil) {
        owner.end->object = self;
    }
    return self;
}

- (instancetype)initWithMachServiceName:(NSString*)name options:(NSXPCConnectionOptions)options {
    self = [self init];
    if (self != nil) {
        owner.end->isClient = true;
        owner.end->machService = utf8Of(name);
        owner.end->isPrivileged = (options & NSXPCConnectionPrivileged) != 0;
    }
    return self;
}

- (instancetype)initWithListenerEndpoint:(NSXPCListenerEndpoint*)endpoint {
    self = [self init];
    if (self != nil) {
        owner.end->isClient = true;
        owner.end->listener = endpoint->listener;
    }
    return self;
}

- (NSXPCInterface*)exportedInterface {
    return valueAt(owner.end->holds.exportedInterface);
}

- (void)setExportedInterface:(NSXPCInterface*)interface {
    put(owner.end->holds.exportedInterface, interface);
}

- (id)exportedObject {
    return valueAt(owner.end->holds.exportedObject);
}

- (void)setExportedObject:(id)object {
    put(owner.end->holds.exportedObject, object);
}

- (NSXPCInterface*)remoteObjectInterface {
    return valueAt(owner.end->remoteInterface);
}

- (void)setRemoteObjectInterface:(NSXPCInterface*)interface {
    put(owner.end->remoteInterface, interface);
}

- (void (^)(void))interruptionHandler {
    return valueAt(owner.end->holds.onInterruption);
}

- (void)setInterruptionHandler:(void (^)(void))handler {
    const Handler copied = handler;
    put(owner.end->holds.onInterruption, copied);
}

- (void (^)(void))invalidationHandler {
    return valueAt(owner.end->holds.onInvalidation);
}

- (void)setInvalidationHandler:(void (^)(void))handler {
    const Handler copied = handler;
    put(owner.end->holds.onInvalidation, copied);
}

- (id)remoteObjectProxyWithErrorHandler:(void (^)(NSError*))handler {
    TarnvaleProxy* const proxy = [TarnvaleProxy new];
    proxy->connection = self;
    proxy->onError = handler;
    return proxy;
}

- (pid_t)processIdentifier {
    return owner.end->peer.pid;
}

- (uid_t)effectiveUserIdentifier {
    return owner.end->peer.uid;
}

- (void)setCodeSigningRequirement:(NSString*)requirement {
    const auto text = utf8Of(requirement);
    if (!XPC::current().isMet(text)) {
        raise("it is no requirement: " + text);
    }
    const std::lock_guard lock(theLock());
    if (owner.end->isResumed || owner.end->requirement) {
        objc::die("it came too late, or a second time", "a requirement");
    }
    owner.end->requirement = text;
}

- (void)resume {
    std::vector<std::function<void()>> work;
    {
        const std::lock_guard lock(theLock());
        if (owner.end->isInvalid || std::exchange(owner.end->isResumed, true)) {
            return;
        }
        owner.end->holds.itself = self;
        if (owner.end->isClient) {
            owner.end->peer = XPC::current().client();
        }
        work = std::exchange(owner.end->holds.work, {});
    }
    for (auto& one : work) {
        if (owner.end->isClient) {
            one();
        } else {
            owner.end->queue->async(std::move(one));
        }
    }
}

- (void)invalidate {
    ::invalidate(owner.end);
}

+ (NSXPCConnection*)currentConnection {
    return currentConnection;
}

@end

namespace tarnvale::test::standin {

XPC& XPC::current() {
    static auto& current = *new XPC;
    return current;
}

XPC& XPC::renewed() {
    auto& xpc = current();
    const std::lock_guard lock(xpc.mutex_);
    xpc.machine_ = {};
    return xpc;
}

void XPC::setClient(Process process) {
    const std::lock_guard lock(mutex_);
    machine_.client = process;
}

XPC::Process XPC::client() {
    const std::lock_guard lock(mutex_);
    return machine_.client.value_or(Process{::getpid(), ::geteuid()});
}

void XPC::setRequirement(const std::string& text, bool isMet) {
    const std::lock_guard lock(mutex_);
    machine_.requirements[text] = isMet;
}

std::optional<bool> XPC::isMet(const std::string& requirement) {
    const std::lock_guard lock(mutex_);
    const auto found = machine_.requirements.find(requirement);
    return found == machine_.requirements.end() ? std::nullopt : std::optional(found->second);
}

std::vector<std::chrono::nanoseconds> XPC::waits() {
    const std::lock_guard lock(mutex_);
    return machine_.waits;
}

std::optional<std::chrono::nanoseconds> XPC::waitFor(std::chrono::nanoseconds limit) {
    const std::lock_guard lock(mutex_);
    machine_.waits.push_back(limit);
    if (std::exchange(machine_.endsNextWait, false)) {
        return std::nullopt;
    }
    return std::min<std::chrono::nanoseconds>(limit, longestWait);
}

void XPC::endNextWait() {
    const std::lock_guard lock(mutex_);
    machine_.endsNextWait = true;
}

bool settle() {
    auto& work = Work::get();
    std::unique_lock lock(work.mutex);
    return work.changed.wait_for(lock, longestWait, [&] { return work.pending == 0; });
}

}  // namespace tarnvale::test::standin
