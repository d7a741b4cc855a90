// Walking a reply of ten records under one compressed name, and building an answer, beside the
// system's resolver and, if installed, c-ares and ldns.

#include <arpa/nameser.h>
#include <benchmark/benchmark.h>
#include <netdb.h>

#ifdef HAVE_LIBCARES
#include <ares.h>
#endif
#ifdef HAVE_LDNS
#include <ldns/ldns.h>
#endif

#include <cstdlib>
#include <memory>
#include <vector>

#include "msgapi/dns.h"
#include "util/dns/packet_support.h"

namespace {

// The ten answers of a real reply, without what follows them.
PacketOwner ten_records() {
  const PacketOwner reply = make_packet(captures::kPoolReply);
  const auto answers_end =
      static_cast<uint32_t>(ORP_DNS_PacketGetFirstAuthorityRecord(reply.get()) - at(reply, 0));
  PacketOwner packet = own(ORP_DNS_PacketCopy(reply.get(), answers_end));
  std::fill_n(ORP_DNS_PACKET_MESSAGE(packet.get()) + 8, 4, uint8_t{0});
  return packet;
}

void walk(benchmark::State &state) {
  const PacketOwner packet = ten_records();
  for (auto _ : state) {
    uint32_t records = 0;
    ORP_DNS_RR_ST record;
    for (const uint8_t *place = ORP_DNS_PacketGetFirstRR(packet.get()); place != nullptr;
         place = ORP_DNS_PacketGetNextRR(packet.get(), place)) {
      if (ORP_DNS_PacketGetValuesOfRR(packet.get(), place, &record, nullptr) != ORP_DNS_OK) break;
      ++records;
      benchmark::DoNotOptimize(record);
    }
    if (records != 10) state.SkipWithError("not ten records");
  }
}
BENCHMARK(walk);

void walk_libresolv(benchmark::State &state) {
  const PacketOwner packet = ten_records();
  for (auto _ : state) {
    ns_msg message;
    ns_rr record;
    if (::ns_initparse(at(packet, 0), static_cast<int>(packet->ulLength), &message) != 0)
      std::abort();
    for (int i = 0; i < ns_msg_count(message, ns_s_an); ++i) {
      if (::ns_parserr(&message, ns_s_an, i, &record) != 0) std::abort();
      benchmark::DoNotOptimize(record);
    }
  }
}
BENCHMARK(walk_libresolv);

#ifdef HAVE_LIBCARES
void walk_c_ares(benchmark::State &state) {
  const PacketOwner packet = ten_records();
  for (auto _ : state) {
    hostent *host = nullptr;
    ares_addrttl ttls[10];
    int count = 10;
    if (ares_parse_a_reply(at(packet, 0), static_cast<int>(packet->ulLength), &host, ttls,
                           &count) != ARES_SUCCESS ||
        count != 10) {
      std::abort();
    }
    ares_free_hostent(host);
  }
}
BENCHMARK(walk_c_ares);
#endif

#ifdef HAVE_LDNS
void walk_ldns(benchmark::State &state) {
  const PacketOwner packet = ten_records();
  for (auto _ : state) {
    ldns_pkt *parsed = nullptr;
    if (ldns_wire2pkt(&parsed, at(packet, 0), packet->ulLength) != LDNS_STATUS_OK) std::abort();
    if (ldns_pkt_ancount(parsed) != 10) std::abort();
    ldns_pkt_free(parsed);
  }
}
BENCHMARK(walk_ldns);
#endif

constexpr uint8_t kAddress[] = {192, 0, 2, 1};

void build_answer(benchmark::State &state) {
  const PacketOwner query = make_packet(captures::kPoolQuery);
  const ORP_DNS_RR_ST record = {"", ns_t_a, ns_c_in, 60, sizeof kAddress, kAddress};
  for (auto _ : state) {
    ORP_DNS_PACKET_ST *answer = ORP_DNS_PacketBuildResponse(query.get(), &record, 0);
    benchmark::DoNotOptimize(answer);
    std::free(answer);
  }
}
BENCHMARK(build_answer);

#ifdef HAVE_LDNS
// Answers a parsed query: like the library's side, it starts from what a relay has at hand.
void build_answer_ldns(benchmark::State &state) {
  const PacketOwner query = make_packet(captures::kPoolQuery);
  ldns_pkt *parsed = nullptr;
  ldns_rr *record = nullptr;
  if (ldns_wire2pkt(&parsed, at(query, 0), query->ulLength) != LDNS_STATUS_OK ||
      ldns_rr_new_frm_str(&record, "pool.example.com. 60 IN A 192.0.2.1", 60, nullptr, nullptr) !=
          LDNS_STATUS_OK) {
    std::abort();
  }
  for (auto _ : state) {
    ldns_pkt *answer = ldns_pkt_clone(parsed);
    ldns_pkt_set_qr(answer, true);
    ldns_pkt_push_rr(answer, LDNS_SECTION_ANSWER, ldns_rr_clone(record));
    uint8_t *wire = nullptr;
    size_t size = 0;
    if (ldns_pkt2wire(&wire, answer, &size) != LDNS_STATUS_OK) std::abort();
    std::free(wire);
    ldns_pkt_free(answer);
  }
  ldns_rr_free(record);
  ldns_pkt_free(parsed);
}
BENCHMARK(build_answer_ldns);
#endif

}  // namespace

BENCHMARK_MAIN();
