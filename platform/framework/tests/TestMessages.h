#pragma once

#include "framework/Message.h"
#include "framework/Task.h"

#include <atomic>
#include <string>

// Messages shared by the framework tests and the test module. PingMessage reaches tasks that
// implement PingReceiver; any other task refuses it with -1.
struct PingReceiver {
    virtual ~PingReceiver() = default;
    virtual int OnPing(const struct PingMessage& msg) = 0;
};

struct PingMessage : Framework::Message {
    PingMessage(std::string from, int n, std::atomic<int>* alive = nullptr) : sender(std::move(from)), seq(n), live(alive)
    {
        if (live != nullptr) {
            ++*live;
        }
    }
    ~PingMessage() override
    {
        if (live != nullptr) {
            --*live;
        }
    }
    int MessageHandle(void* task) override
    {
        auto* receiver = dynamic_cast<PingReceiver*>(static_cast<Framework::Task*>(task));
        return receiver == nullptr ? -1 : receiver->OnPing(*this);
    }
    std::string sender;
    int seq;
    std::atomic<int>* live;  // counts messages alive, to prove none leaks
};
