#pragma once

#include "xmlrpc/XmlRpcPeer.h"
#include "xmlrpc/XmlRpcServerMethod.h"
#include "xmlrpc/XmlRpcValue.h"

#include <functional>
#include <stdexcept>
#include <string>
#include <thread>

/// A method that is a function.
class Method : public XmlRpc::XmlRpcServerMethod {
public:
    using Body = std::function<void(const XmlRpc::XmlRpcValue&, XmlRpc::XmlRpcValue&)>;
    Method(const std::string& name, Body body) : XmlRpcServerMethod(name), _body(std::move(body)) {}
    void execute(const XmlRpc::XmlRpcValue& params, XmlRpc::XmlRpcValue& result) override {
        _body(params, result);
    }

private:
    const Body _body;
};

/// A peer whose server is at work on a thread.
struct AtWork {
    static constexpr const char* SECRET = "5ec4e7";

    explicit AtWork(const XmlRpc::XmlRpcServer::Limits& limits = {},
                    const std::string& address = "127.0.0.1") {
        peer.setSecret(SECRET);
        peer.getServer().setLimits(limits);
        peer.getServer().addMethod(echo);
        peer.getServer().addMethod(fail);
        if (!peer.getServer().bindAndListen(0, 64, address))
            throw std::runtime_error(peer.getServer().getLastFailure());
        port = peer.getServer().getPort();
        start();
    }
    ~AtWork() { stop(); }
    void start() {
        thread = std::thread([this] { fine = peer.work(-1.0); });
    }
    /// A connection whose answer was received is closed then.
    void stop() {
        peer.exitWork();
        if (thread.joinable())
            thread.join();
    }

    Method echo{"Echo", [](const auto& params, auto& result) { result = params; }};
    Method fail{"Fail", [](const auto&, auto&) { throw std::runtime_error("\x01 \xFF"); }};
    XmlRpc::XmlRpcPeer peer;
    int port = 0;
    bool fine = false;
    std::thread thread;
};
