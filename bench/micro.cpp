// Single operations, compared with msgpack-c and protobuf where these do the same. The message is a
// reply to a read: three special items, and pins. Every encoder writes into a buffer, and every
// decoder into an object, that it has used before, as far as its interface allows.
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <msgpack.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <string>

#include "bench/sockets.h"
#include "message.pb.h"
#include "msg/Msg2.h"
#include "protocol/numbers.h"
#include "rudp/RUdpLayer1Base.h"
#include "rudp/RUdpTIDMap.h"
#include "tqr/tqr_util.h"
#include "tqr/tqrcli.h"

namespace {

const uint32_t FIRST_PIN = 0x10204;
const uint64_t DATA_VALUE = 0x0102030405060708;
const uint32_t OTHER_ITEMS = 3;

const uint32_t MAX_ITEMS = 4000;
char encoded[MAX_ITEMS * 16];

// The number of items in a benchmark's message.
void item_counts(benchmark::internal::Benchmark* benchmark) {
    benchmark->Arg(6)->Arg(256)->Arg(MAX_ITEMS);
}

uint32_t pins_of(const benchmark::State& state) {
    return static_cast<uint32_t>(state.range(0)) - OTHER_ITEMS;
}

CMsg2 make_message(uint32_t pins) {
    CMsg2 msg(pins + OTHER_ITEMS, 16);
    msg.SetId(ID_REPORT);
    msg.SetDword(TAG_REFERS_TO, 7);
    for (uint32_t i = 0; i < pins; ++i) {
        msg.SetByte(FIRST_PIN + i, 1);
    }
    msg.SetByte(TAG_REPLY_KIND, 2);
    msg.SetQword(TAG_REQUEST_DATA, DATA_VALUE);
    return msg;
}

void fill_message(bench::Message& msg, uint32_t pins) {
    msg.Clear();
    msg.set_id(ID_REPORT);
    bench::Item* item = msg.add_items();
    item->set_tag(TAG_REFERS_TO);
    item->set_dword(7);
    for (uint32_t i = 0; i < pins; ++i) {
        item = msg.add_items();
        item->set_tag(FIRST_PIN + i);
        item->set_byte(1);
    }
    item = msg.add_items();
    item->set_tag(TAG_REPLY_KIND);
    item->set_byte(2);
    item = msg.add_items();
    item->set_tag(TAG_REQUEST_DATA);
    item->set_qword(DATA_VALUE);
}

// An array of the identifier and a map from tags to values.
void pack_message(msgpack_packer& packer, uint32_t pins) {
    msgpack_pack_array(&packer, 2);
    msgpack_pack_fix_uint32(&packer, ID_REPORT);
    msgpack_pack_map(&packer, pins + OTHER_ITEMS);
    msgpack_pack_fix_uint32(&packer, TAG_REFERS_TO);
    msgpack_pack_fix_uint32(&packer, 7);
    for (uint32_t i = 0; i < pins; ++i) {
        msgpack_pack_fix_uint32(&packer, FIRST_PIN + i);
        msgpack_pack_uint8(&packer, 1);
    }
    msgpack_pack_fix_uint32(&packer, TAG_REPLY_KIND);
    msgpack_pack_uint8(&packer, 2);
    msgpack_pack_fix_uint32(&packer, TAG_REQUEST_DATA);
    msgpack_pack_fix_uint64(&packer, DATA_VALUE);
}

// ---- encode: a message in memory to bytes

void encode_orvex(benchmark::State& state) {
    const CMsg2 msg = make_message(pins_of(state));
    for (auto _ : state) {
        benchmark::DoNotOptimize(msg.GetData(encoded));
        benchmark::ClobberMemory();
    }
    state.counters["bytes"] = msg.GetDataSize();
}
BENCHMARK(encode_orvex)->Apply(item_counts);

void encode_msgpack(benchmark::State& state) {
    msgpack_sbuffer buf;
    msgpack_sbuffer_init(&buf);
    msgpack_packer packer;
    msgpack_packer_init(&packer, &buf, msgpack_sbuffer_write);
    const uint32_t pins = pins_of(state);
    for (auto _ : state) {
        msgpack_sbuffer_clear(&buf);
        pack_message(packer, pins);
        benchmark::DoNotOptimize(buf.data);
        benchmark::ClobberMemory();
    }
    state.counters["bytes"] = static_cast<double>(buf.size);
    msgpack_sbuffer_destroy(&buf);
}
BENCHMARK(encode_msgpack)->Apply(item_counts);

void encode_protobuf(benchmark::State& state) {
    bench::Message msg;
    fill_message(msg, pins_of(state));
    for (auto _ : state) {
        benchmark::DoNotOptimize(msg.SerializeToArray(encoded, sizeof encoded));
        benchmark::ClobberMemory();
    }
    state.counters["bytes"] = static_cast<double>(msg.ByteSizeLong());
}
BENCHMARK(encode_protobuf)->Apply(item_counts);

// ---- decode: bytes to a message in memory

void decode_orvex(benchmark::State& state) {
    const unsigned short size = make_message(pins_of(state)).GetData(encoded);
    CMsg2 msg(16, 16);
    for (auto _ : state) {
        benchmark::DoNotOptimize(msg.SetData(encoded, size));
        benchmark::ClobberMemory();
    }
    if (msg.GetQword(TAG_REQUEST_DATA) != DATA_VALUE) {
        state.SkipWithError("wrong message");
    }
}
BENCHMARK(decode_orvex)->Apply(item_counts);

void decode_msgpack(benchmark::State& state) {
    msgpack_sbuffer buf;
    msgpack_sbuffer_init(&buf);
    msgpack_packer packer;
    msgpack_packer_init(&packer, &buf, msgpack_sbuffer_write);
    pack_message(packer, pins_of(state));
    msgpack_zone zone;
    msgpack_zone_init(&zone, 2048);
    msgpack_object msg;
    for (auto _ : state) {
        msgpack_zone_clear(&zone);
        benchmark::DoNotOptimize(msgpack_unpack(buf.data, buf.size, nullptr, &zone, &msg));
        benchmark::ClobberMemory();
    }
    if (msg.via.array.ptr[1].via.map.ptr[pins_of(state) + 2].val.via.u64 != DATA_VALUE) {
        state.SkipWithError("wrong message");
    }
    msgpack_zone_destroy(&zone);
    msgpack_sbuffer_destroy(&buf);
}
BENCHMARK(decode_msgpack)->Apply(item_counts);

void decode_protobuf(benchmark::State& state) {
    bench::Message msg;
    fill_message(msg, pins_of(state));
    const std::string buf = msg.SerializeAsString();
    for (auto _ : state) {
        benchmark::DoNotOptimize(msg.ParseFromArray(buf.data(), static_cast<int>(buf.size())));
        benchmark::ClobberMemory();
    }
    if (msg.items(static_cast<int>(pins_of(state)) + 2).qword() != DATA_VALUE) {
        state.SkipWithError("wrong message");
    }
}
BENCHMARK(decode_protobuf)->Apply(item_counts);

// ---- look-up of every item of a message by its tag

void lookup(benchmark::State& state, uint32_t step) {
    const uint32_t items = static_cast<uint32_t>(state.range(0));
    CMsg2 msg(items, 16);
    for (uint32_t i = 0; i < items; ++i) {
        msg.SetByte(i, 1);
    }
    uint32_t tag = 0;
    for (auto _ : state) {
        tag = (tag + step) % items;
        benchmark::DoNotOptimize(msg.GetByte(tag));
    }
}
void lookup_in_order(benchmark::State& state) {
    lookup(state, 1);
}
// Backwards: each search goes around the whole message.
void lookup_worst(benchmark::State& state) {
    lookup(state, static_cast<uint32_t>(state.range(0)) - 1);
}
BENCHMARK(lookup_in_order)->Arg(6)->Arg(4000);
BENCHMARK(lookup_worst)->Arg(6)->Arg(4000);

// ---- duplicate test of a message from one of so many peers, each in turn

void duplicate_test(benchmark::State& state) {
    CRUdpTIDMap map(CRUdpLayer1Base::REPEAT_MEMORY_MS, nullptr, 17, nullptr, 0, 32);
    const uint16_t peers = static_cast<uint16_t>(state.range(0));
    const unsigned long host = 0x0A4D0002;
    for (uint16_t i = 0; i < peers; ++i) {
        map.DuplicateTestAndSet(host, static_cast<uint16_t>(10000 + i), 1);
    }
    uint16_t peer = 0;
    unsigned long tid = 2;
    for (auto _ : state) {
        peer = static_cast<uint16_t>((peer + 7919) % peers);
        benchmark::DoNotOptimize(
            map.DuplicateTestAndSet(host, static_cast<uint16_t>(10000 + peer), tid++));
    }
}
BENCHMARK(duplicate_test)->Arg(1)->Arg(32)->Arg(1000)->Arg(50000);

// ---- line framing: lines that arrive fifty at a time, system calls included

void line_framing(benchmark::State& state) {
    const int listener = listen_at("127.0.0.1", 0);
    sockaddr_in address = {};
    socklen_t size = sizeof address;
    getsockname(listener, reinterpret_cast<sockaddr*>(&address), &size);
    CTQRClient client;
    client.open("127.0.0.1", static_cast<short>(ntohs(address.sin_port)), 2000);
    const int peer = accept(listener, nullptr, nullptr);
    const int lines = 50;
    std::string batch;
    for (int i = 0; i < lines; ++i) {
        batch += "GPI 1 LHHHH\r\n";
    }
    int got = lines;
    for (auto _ : state) {
        if (got == lines) {
            state.PauseTiming();
            require(send(peer, batch.data(), batch.size(), 0) > 0, "send");
            got = 0;
            state.ResumeTiming();
        }
        got += client.recv(0) != nullptr ? 1 : 0;
    }
    close(peer);
    close(listener);
}
BENCHMARK(line_framing);

// ---- a value in a control line

void value_lookup(benchmark::State& state) {
    const char* const line =
        "GPO 1 NAME=\"Studio two\" INFO=\"red lamp\" SRCA=\"tqs://10.77.0.2/3\"";
    for (auto _ : state) {
        benchmark::DoNotOptimize(tqr_findval(line, "SRCA"));
    }
}
BENCHMARK(value_lookup);

}  // namespace

BENCHMARK_MAIN();
