#include "PsiTables.h"

#include <bitstream/dvb/si.h>
#include <bitstream/mpeg/psi.h>
#include <bitstream/mpeg/ts.h>

#include <algorithm>
#include <cctype>
#include <string_view>

#include "DvbText.h"

namespace {

using Bytes = std::span<const uint8_t>;

constexpr uint8_t kStuffing = 0xFF;  // stands where the next section's table_id would
constexpr size_t kMostProgrammes = 512;
constexpr size_t kMostServices = 1024;
constexpr uint16_t kNoPcrPid = 0x1FFF;

// Calls `visit` for each descriptor that is whole: with its tag and what it contains.
template <typename Visitor>
void forEachDescriptor(Bytes loop, const Visitor& visit) {
    while (loop.size() >= DESC_HEADER_SIZE) {
        const size_t length = DESC_HEADER_SIZE + desc_get_length(loop.data());
        if (length > loop.size())
            return;
        visit(desc_get_tag(loop.data()), loop.subspan(DESC_HEADER_SIZE, length - DESC_HEADER_SIZE));
        loop = loop.subspan(length);
    }
}

struct Codec {
    unsigned int key;  // a stream type, or a descriptor's tag
    const char* kind;
    const char* name;
};

constexpr Codec kStreamTypes[] = {
    {PMT_STREAMTYPE_VIDEO_MPEG1, "video", "MPEG-1"},
    {PMT_STREAMTYPE_VIDEO_MPEG2, "video", "MPEG-2"},
    {PMT_STREAMTYPE_AUDIO_MPEG1, "audio", "MPEG-1"},
    {PMT_STREAMTYPE_AUDIO_MPEG2, "audio", "MPEG-2"},
    {PMT_STREAMTYPE_PRIVATE_PSI, "data", "sections"},
    {PMT_STREAMTYPE_PRIVATE_PES, "data", "private PES"},
    {PMT_STREAMTYPE_13818_6_B, "data", "DSM-CC"},
    {PMT_STREAMTYPE_13818_6_C, "data", "DSM-CC"},
    {PMT_STREAMTYPE_13818_6_D, "data", "DSM-CC"},
    {PMT_STREAMTYPE_AUDIO_ADTS, "audio", "AAC"},
    {PMT_STREAMTYPE_VIDEO_MPEG4, "video", "MPEG-4"},
    {PMT_STREAMTYPE_AUDIO_LATM, "audio", "AAC LATM"},
    {PMT_STREAMTYPE_META_PES, "data", "metadata"},
    {PMT_STREAMTYPE_META_PSI, "data", "metadata"},
    {PMT_STREAMTYPE_VIDEO_AVC, "video", "H.264"},
    {0x20, "video", "H.264 MVC"},
    {0x21, "video", "JPEG 2000"},
    {PMT_STREAMTYPE_VIDEO_HEVC, "video", "H.265"},
    {0x33, "video", "H.266"},
    {PMT_STREAMTYPE_VIDEO_AVS, "video", "AVS"},
    {0xD2, "video", "AVS2"},
    {0xEA, "video", "VC-1"},
};

// What some registrations give to the types from 0x80 on that each user of the standard has for
// himself. Elsewhere, too, hardly anybody means another thing by them.
constexpr Codec kUserStreamTypes[] = {
    {PMT_STREAMTYPE_ATSC_A52, "audio", "AC-3"},
    {PMT_STREAMTYPE_ATSC_A52E, "audio", "E-AC-3"},
    {PMT_STREAMTYPE_SCTE_35, "data", "SCTE 35"},
};

// Descriptors of a private PES stream, which tell what is in it.
constexpr Codec kDescriptors[] = {
    {0x46, "data", "VBI teletext"}, {0x56, "subtitle", "teletext"}, {0x59, "subtitle", "DVB"},
    {0x6A, "audio", "AC-3"},        {0x7A, "audio", "E-AC-3"},      {0x7B, "audio", "DTS"},
    {0x7C, "audio", "AAC"},
};

constexpr struct {
    std::string_view identifier;
    const char* kind;
    const char* name;
} kRegistrations[] = {
    {"AC-3", "audio", "AC-3"}, {"EAC3", "audio", "E-AC-3"},     {"AC-4", "audio", "AC-4"},
    {"Opus", "audio", "Opus"}, {"BSSD", "audio", "SMPTE 302M"}, {"DTS1", "audio", "DTS"},
    {"DTS2", "audio", "DTS"},  {"DTS3", "audio", "DTS"},        {"HEVC", "video", "H.265"},
    {"VC-1", "video", "VC-1"}, {"drac", "video", "Dirac"},      {"AV01", "video", "AV1"},
    {"KLVA", "data", "KLV"},
};

void applyCodec(ElementaryStream& stream, std::span<const Codec> codecs, unsigned int key) {
    const auto found = std::find_if(codecs.begin(), codecs.end(),
                                    [key](const Codec& codec) { return codec.key == key; });
    if (found != codecs.end()) {
        stream.kind = found->kind;
        stream.codec = found->name;
    }
}

void applyRegistration(ElementaryStream& stream, Bytes content) {
    if (content.size() < 4)
        return;
    const std::string_view identifier(reinterpret_cast<const char*>(content.data()), 4);
    for (const auto& known : kRegistrations) {
        if (identifier == known.identifier) {
            stream.kind = known.kind;
            stream.codec = known.name;
        }
    }
}

void applyLanguage(ElementaryStream& stream, Bytes content) {
    if (content.size() < 3 || !stream.language.empty() ||
        !std::all_of(content.begin(), content.begin() + 3, [](uint8_t c) { return isalpha(c); }))
        return;
    stream.language.assign(content.begin(), content.begin() + 3);
}

ElementaryStream makeStream(uint16_t pid, uint8_t type, Bytes descriptors) {
    constexpr uint8_t kRegistration = 0x05;
    constexpr uint8_t kLanguage = 0x0A;
    constexpr uint8_t kTeletext = 0x56;
    constexpr uint8_t kSubtitling = 0x59;
    ElementaryStream stream{pid, type, "data", "", ""};
    applyCodec(stream, kStreamTypes, type);
    applyCodec(stream, kUserStreamTypes, type);
    const bool isPrivate = type == PMT_STREAMTYPE_PRIVATE_PES || type >= 0x80;
    forEachDescriptor(descriptors, [&](uint8_t tag, Bytes content) {
        if (tag == kRegistration && isPrivate)
            applyRegistration(stream, content);
        if (type == PMT_STREAMTYPE_PRIVATE_PES)
            applyCodec(stream, kDescriptors, tag);
        if (tag == kLanguage || tag == kTeletext || tag == kSubtitling)
            applyLanguage(stream, content);
    });
    return stream;
}

std::optional<Service> readService(Bytes content) {
    // type, length and provider, length and name
    if (content.size() < 2)
        return std::nullopt;
    const uint8_t type = content[0];
    const size_t providerLength = content[1];
    content = content.subspan(2);
    if (content.size() < providerLength + 1)
        return std::nullopt;
    const Bytes provider = content.first(providerLength);
    const size_t nameLength = content[providerLength];
    content = content.subspan(providerLength + 1);
    if (content.size() < nameLength)
        return std::nullopt;
    return Service{type, dvbText(content.first(nameLength)), dvbText(provider)};
}

}  // namespace

void SectionAssembler::add(Bytes payload, bool unitStart, const Sink& sink) {
    if (!unitStart) {
        if (active_) {
            pending_.insert(pending_.end(), payload.begin(), payload.end());
            take(sink);
        }
        return;
    }
    // pointer_field: so many bytes still belong to the section before.
    const size_t tail = payload.empty() ? 0 : payload.front();
    if (payload.size() < tail + 1) {
        reset();
        return;
    }
    if (active_) {
        pending_.insert(pending_.end(), payload.begin() + 1,
                        payload.begin() + 1 + static_cast<std::ptrdiff_t>(tail));
        take(sink);
    }
    pending_.assign(payload.begin() + 1 + static_cast<std::ptrdiff_t>(tail), payload.end());
    active_ = true;
    take(sink);
}

void SectionAssembler::take(const Sink& sink) {
    Bytes rest(pending_);
    while (active_ && !rest.empty()) {
        if (psi_get_tableid(rest.data()) == kStuffing) {
            active_ = false;
            break;
        }
        if (rest.size() < PSI_HEADER_SIZE)
            break;
        const size_t length = PSI_HEADER_SIZE + psi_get_length(rest.data());
        if (rest.size() < length)
            break;
        sink(rest.first(length));
        rest = rest.subspan(length);
    }
    if (active_)
        pending_.erase(pending_.begin(), pending_.end() - static_cast<std::ptrdiff_t>(rest.size()));
    else
        pending_.clear();
}

void PsiTables::add(const uint8_t* packet, Continuity continuity) {
    const uint16_t pid = ts_get_pid(packet);
    SectionAssembler* assembler = nullptr;
    if (pid == PAT_PID)
        assembler = &pat_;
    else if (pid == SDT_PID)
        assembler = &sdt_;
    else if (const auto pmt = pmts_.find(pid); pmt != pmts_.end())
        assembler = &pmt->second;
    if (assembler == nullptr)
        return;
    if (continuity == Continuity::kJump)
        assembler->reset();
    const Bytes payload = packetPayload(packet);
    if (!payload.empty())
        assembler->add(payload, ts_get_unitstart(packet),
                       [this, pid](Bytes section) { addSection(pid, section); });
}

void PsiTables::addSection(uint16_t pid, Bytes section) {
    const uint8_t table = psi_get_tableid(section.data());
    const bool pat = pid == PAT_PID && table == PAT_TABLE_ID;
    const bool sdt = pid == SDT_PID && table == SDT_TABLE_ID_ACTUAL;
    const bool pmt = pid != PAT_PID && pid != SDT_PID && table == PMT_TABLE_ID;
    if (!pat && !sdt && !pmt)
        return;
    // The CRC's place is known only where the length is good for header and CRC.
    if (!psi_get_syntax(section.data()) || !psi_validate(section.data()) ||
        !psi_check_crc(section.data())) {
        ++damaged_;
        return;
    }
    if (!psi_get_current(section.data()))
        return;
    const Bytes crc = section.last(PSI_CRC_SIZE);
    section = section.first(section.size() - PSI_CRC_SIZE);
    if (pat)
        addPat(section);
    else if (sdt)
        addSdt(section, crc);
    else
        addPmt(pid, section);
}

void PsiTables::addPat(Bytes section) {
    const uint16_t id = pat_get_tsid(section.data());
    const uint8_t version = psi_get_version(section.data());
    if (transportStreamId_ != id || patVersion_ != version) {
        programmes_.clear();
        pmts_.clear();
        transportStreamId_ = id;
        patVersion_ = version;
    }
    for (Bytes rest = section.subspan(PAT_HEADER_SIZE); rest.size() >= PAT_PROGRAM_SIZE;
         rest = rest.subspan(PAT_PROGRAM_SIZE)) {
        const uint16_t number = patn_get_program(rest.data());
        const uint16_t pid = patn_get_pid(rest.data());
        // Number 0 stands for the network information.
        if (number != 0 && pid != PAT_PID && pid != SDT_PID && pid != kNullPid &&
            programmes_.size() < kMostProgrammes &&
            programmes_.try_emplace(number, Programme{pid, std::nullopt, {}}).second)
            pmts_.try_emplace(pid);
    }
}

void PsiTables::addPmt(uint16_t pid, Bytes section) {
    const auto found = programmes_.find(pmt_get_program(section.data()));
    if (found == programmes_.end() || found->second.pmtPid != pid)
        return;
    const size_t descriptors =
        section.size() < PMT_HEADER_SIZE ? 0 : pmt_get_desclength(section.data());
    if (section.size() < PMT_HEADER_SIZE + descriptors) {
        ++damaged_;
        return;
    }
    Programme& programme = found->second;
    const uint16_t pcrPid = pmt_get_pcrpid(section.data());
    programme.pcrPid = pcrPid == kNoPcrPid ? std::nullopt : std::optional(pcrPid);
    programme.streams.clear();
    for (Bytes rest = section.subspan(PMT_HEADER_SIZE + descriptors); rest.size() >= PMT_ES_SIZE;) {
        const size_t length = PMT_ES_SIZE + pmtn_get_desclength(rest.data());
        if (rest.size() < length) {
            ++damaged_;
            return;
        }
        programme.streams.push_back(makeStream(pmtn_get_pid(rest.data()),
                                               pmtn_get_streamtype(rest.data()),
                                               rest.subspan(PMT_ES_SIZE, length - PMT_ES_SIZE)));
        rest = rest.subspan(length);
    }
}

void PsiTables::addSdt(Bytes section, Bytes crc) {
    constexpr uint8_t kServiceDescriptor = 0x48;
    if (section.size() < SDT_HEADER_SIZE)
        return;
    // Most sections come again and again, and their names are the costliest part of a stream.
    std::array<uint8_t, PSI_CRC_SIZE> known{};
    std::copy_n(crc.begin(), known.size(), known.begin());
    const auto last = sdtSections_.find(psi_get_section(section.data()));
    if (last != sdtSections_.end() && last->second == known)
        return;
    for (Bytes rest = section.subspan(SDT_HEADER_SIZE); rest.size() >= SDT_SERVICE_SIZE;) {
        const size_t length = SDT_SERVICE_SIZE + sdtn_get_desclength(rest.data());
        if (rest.size() < length) {
            ++damaged_;
            return;
        }
        const uint16_t number = sdtn_get_sid(rest.data());
        forEachDescriptor(
            rest.subspan(SDT_SERVICE_SIZE, length - SDT_SERVICE_SIZE),
            [&](uint8_t tag, Bytes content) {
                auto service = tag == kServiceDescriptor ? readService(content) : std::nullopt;
                if (service && (services_.size() < kMostServices || services_.contains(number)))
                    services_.insert_or_assign(number, std::move(*service));
            });
        rest = rest.subspan(length);
    }
    sdtSections_.insert_or_assign(psi_get_section(section.data()), known);
}

const char* reservedPidName(uint16_t pid) {
    switch (pid) {
        case PAT_PID:
            return "PAT";
        case 0x01:
            return "CAT";
        case 0x02:
            return "TSDT";
        case 0x10:
            return "NIT";
        case SDT_PID:
            return "SDT";
        case 0x12:
            return "EIT";
        case 0x13:
            return "RST";
        case 0x14:
            return "TDT";
        case kNullPid:
            return "null";
        default:
            return nullptr;
    }
}
