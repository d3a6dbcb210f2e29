// The peer gRPC: a unary call that echoes its bytes, over one channel that threads share. Its
// server is this program started with --serve. A window is calls through a completion queue.

#include "../common/measure.h"
#include "../common/sockets.h"

#include "echo.grpc.pb.h"

#include <grpcpp/grpcpp.h>

#include <cstdio>
#include <memory>

namespace {

using bench::Data;
using bench::Echoing;
using bench::Figures;
using bench::Options;

constexpr const char* usage =
    "Measures gRPC, and prints the figures as a line of JSON.\n"
    "\n"
    "Usage: qpxbench-grpc --port N [options]\n"
    "       qpxbench-grpc --serve    answers on a free port of the loopback, which it prints\n"
    "\n"
    "Rows: window, --window calls on their way at once; any other, a call at a time.\n"
    "\n"
    "Examples:\n"
    "  qpxbench-grpc --serve &\n"
    "  qpxbench-grpc --port 40123 --threads 4\n"
    "  qpxbench-grpc --port 40123 --row window --window 256\n"
    "\n"
    "Options:\n";

class EchoService final : public Echoing::Service {
    grpc::Status Echo(grpc::ServerContext*, const Data* request, Data* reply) override
    {
        reply->set_bytes(request->bytes());
        return grpc::Status::OK;
    }
};

void serve()
{
    int port = 0;
    EchoService service;
    grpc::ServerBuilder builder;
    builder.AddListeningPort("127.0.0.1:0", grpc::InsecureServerCredentials(), &port);
    builder.RegisterService(&service);
    const std::unique_ptr<grpc::Server> server = builder.BuildAndStart();
    if (server == nullptr) bench::fail("cannot listen");
    std::printf("%d\n", port);
    std::fflush(stdout);
    server->Wait();
}

void call(Echoing::Stub* stub, const Data& request)
{
    grpc::ClientContext context;
    Data reply;
    const grpc::Status status = stub->Echo(&context, request, &reply);
    if (!status.ok()) bench::fail(status.error_message());
}

// Calls on their way through a completion queue.
class Window {
public:
    Window(Echoing::Stub* stub, const Data& request) : stub_(stub), request_(request) {}

    void begin()
    {
        Call* const call = new Call;
        call->reader = stub_->AsyncEcho(&call->context, request_, &queue_);
        call->reader->Finish(&call->reply, &call->status, call);
    }
    void collect()
    {
        void* tag = nullptr;
        bool done = false;
        if (!queue_.Next(&tag, &done)) bench::fail("the queue has ended");
        const std::unique_ptr<Call> call(static_cast<Call*>(tag));
        if (!done || !call->status.ok()) bench::fail(call->status.error_message());
    }

private:
    struct Call {
        grpc::ClientContext context;
        Data reply;
        grpc::Status status;
        std::unique_ptr<grpc::ClientAsyncResponseReader<Data>> reader;
    };

    Echoing::Stub* stub_;
    const Data& request_;
    grpc::CompletionQueue queue_;
};

Figures measure(const Options& options)
{
    const std::unique_ptr<Echoing::Stub> stub = Echoing::NewStub(grpc::CreateChannel(
        "127.0.0.1:" + std::to_string(options.port), grpc::InsecureChannelCredentials()));
    Data request;
    request.set_bytes(std::string(options.size, 'a'));
    if (options.row == "window") {
        Window window(stub.get(), request);
        return bench::measureWindow(
            options, [&] { window.begin(); }, [&] { window.collect(); });
    }
    return bench::measureCalls(options, [&](int) { return [&] { call(stub.get(), request); }; });
}

} // namespace

int main(int argc, char** argv)
{
    const Options options = bench::readOptions(argc, argv,
                                               std::string(usage) + bench::usageOfOptions);
    if (options.serve)
        serve();
    else
        bench::print(options, measure(options));
    return 0;
}
