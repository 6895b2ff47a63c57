// Writes the seed corpus of mnl_parser_fuzz: NFQUEUE packet messages as the
// kernel sends them. Usage: mnl_parser_corpus <directory>
#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include "tests/support/nfqueue_message.h"

namespace {

bool Write(const std::string& path, const std::vector<char>& bytes) {
    std::ofstream out(path, std::ios::binary);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    return static_cast<bool>(out);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s <directory>\n", argv[0]);
        return 2;
    }
    const std::string dir = argv[1];
    using nti::test::NfqueuePacket;

    const NfqueuePacket input = nti::test::SampleInputPacket();

    NfqueuePacket output;
    output.id = 7;
    output.queue = 1;
    output.hook = 3;  // NF_INET_LOCAL_OUT
    output.outdev = 3;
    output.skbInfo = 0;
    output.payload = nti::test::SamplePayload();
    output.payload.resize(61, 0x41);  // odd length: the attribute is padded

    NfqueuePacket empty = output;
    empty.id = 8;
    empty.payload.clear();

    std::vector<char> batch;
    nti::test::PutNfqueuePacket(batch, input);
    nti::test::PutNfqueuePacket(batch, output);

    const bool ok = Write(dir + "/input_tcp_syn", nti::test::NfqueueMessage(input)) &&
                    Write(dir + "/output_odd_payload", nti::test::NfqueueMessage(output)) &&
                    Write(dir + "/empty_payload", nti::test::NfqueueMessage(empty)) &&
                    Write(dir + "/input_then_output", batch);
    return ok ? 0 : 1;
}
