// Attribute checks for NFQUEUE packet messages.
#pragma once

#include "dwi_common/mnl_parser.h"

namespace dwi::network_interceptor {

// kNfqueueMaxAttribute is the highest NFQUEUE attribute type the parser keeps
// (NFQA_PAYLOAD); higher types are skipped.
inline constexpr unsigned long kNfqueueMaxAttribute = 10;

// NfqueueAttributeChecker is the checker table for an MnlParser reading
// NFQUEUE packet messages: exact payload lengths for NFQA_MARK, the interface
// indexes (4 bytes), NFQA_TIMESTAMP (16) and NFQA_HWADDR (12). NFQA_PACKET_HDR
// and NFQA_PAYLOAD go unchecked. Built once when the module loads; lives as
// long as the module.
const dwi::tools::MnlParser::Checker& NfqueueAttributeChecker();

}  // namespace dwi::network_interceptor
