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
constexpr uint16_t kFixedPids[] = {PAT_PID, CAT_PID, NIT_PID, SDT_PID, EIT_PID, TDT_PID};

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

bool isFixed(uint16_t pid) {
    return std::find(std::begin(kFixedPids), std::end(kFixedPids), pid) != std::end(kFixedPids);
}

bool mayHavePmt(uint16_t pid) {
    return pid != PAT_PID && pid != CAT_PID && pid != SDT_PID && pid != kNullPid;
}

// Of the tables whose damage matters, all but the TDT have a CRC.
bool hasCrc(uint8_t table) {
    return table <= PMT_TABLE_ID || table == NIT_TABLE_ID_ACTUAL || table == NIT_TABLE_ID_OTHER ||
           table == SDT_TABLE_ID_ACTUAL || table == SDT_TABLE_ID_OTHER || table == BAT_TABLE_ID ||
           (table >= EIT_TABLE_ID_PF_ACTUAL && table <= EIT_TABLE_ID_SCHED_OTHER_LAST) ||
           table == TOT_TABLE_ID;
}

bool crcIsRight(Bytes section) {
    // The CRC's place is known only where the length is good for header and CRC. A TOT has the
    // short header, and a CRC nevertheless.
    const bool longHeader = psi_get_tableid(section.data()) != TOT_TABLE_ID;
    return psi_get_syntax(section.data()) == longHeader &&
           psi_get_length(section.data()) >= PSI_CRC_SIZE && psi_validate(section.data()) &&
           psi_check_crc(section.data());
}

// PIDs of messages for conditional access, out of a loop of descriptors.
std::vector<uint16_t> readAccessPids(Bytes loop) {
    constexpr uint8_t kConditionalAccess = 0x09;
    std::vector<uint16_t> pids;
    forEachDescriptor(loop, [&](uint8_t tag, Bytes content) {
        if (tag == kConditionalAccess && content.size() >= 4)
            pids.push_back(static_cast<uint16_t>((content[2] << 8 | content[3]) & kNullPid));
    });
    return pids;
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
        if (tag == kLanguage && content.size() >= 4 && content[3] != 0)
            stream.additional = true;
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

PsiTables::PsiTables(Sink sink) : sink_(std::move(sink)), networkPid_(NIT_PID) {
    for (const uint16_t pid : kFixedPids)
        watch(pid);
}

void PsiTables::watch(uint16_t pid) {
    assemblers_.try_emplace(pid);
    watched_.set(pid);
}

void PsiTables::add(const uint8_t* packet, Continuity continuity) {
    const uint16_t pid = ts_get_pid(packet);
    if (!watched_[pid])
        return;
    SectionAssembler& assembler = assemblers_[pid];
    if (continuity == Continuity::kJump)
        assembler.reset();
    const Bytes payload = packetPayload(packet);
    if (!payload.empty())
        assembler.add(payload, ts_get_unitstart(packet),
                      [this, pid](Bytes section) { addSection(pid, section); });
}

void PsiTables::addSection(uint16_t pid, Bytes section) {
    const uint8_t table = psi_get_tableid(section.data());
    const bool intact = !hasCrc(table) || crcIsRight(section);
    damaged_ += intact ? 0 : 1;
    if (sink_)
        sink_(pid, section, intact);
    const bool pat = pid == PAT_PID && table == PAT_TABLE_ID;
    const bool cat = pid == CAT_PID && table == CAT_TABLE_ID;
    const bool sdt = pid == SDT_PID && table == SDT_TABLE_ID_ACTUAL;
    const bool pmt = mayHavePmt(pid) && table == PMT_TABLE_ID;
    if ((!pat && !cat && !sdt && !pmt) || !intact || !psi_get_current(section.data()))
        return;
    Crc crc{};
    std::copy_n(section.end() - PSI_CRC_SIZE, crc.size(), crc.begin());
    section = section.first(section.size() - PSI_CRC_SIZE);
    // Most sections come again and again.
    const uint32_t key =
        uint32_t{table} << 24 | (pmt ? uint32_t{pmt_get_program(section.data())} << 8
                                     : uint32_t{psi_get_section(section.data())});
    if (const auto last = known_.find(key); last != known_.end() && last->second == crc)
        return;
    bool good = true;
    if (pat)
        addPat(section);
    else if (cat)
        accessPids_ = readAccessPids(section.subspan(CAT_HEADER_SIZE));
    else
        good = sdt ? addSdt(section) : addPmt(pid, section);
    changes_ += sdt ? 0 : 1;
    if (good)
        known_.insert_or_assign(key, crc);
}

void PsiTables::addPat(Bytes section) {
    const uint16_t id = pat_get_tsid(section.data());
    const uint8_t version = psi_get_version(section.data());
    if (transportStreamId_ != id || patVersion_ != version) {
        // The PAT's own assembler is at work, and stays.
        std::erase_if(assemblers_, [](const auto& entry) { return !isFixed(entry.first); });
        watched_.reset();
        for (const auto& [known, assembler] : assemblers_)
            watched_.set(known);
        programmes_.clear();
        known_.clear();
        networkPid_ = NIT_PID;
        transportStreamId_ = id;
        patVersion_ = version;
    }
    for (Bytes rest = section.subspan(PAT_HEADER_SIZE); rest.size() >= PAT_PROGRAM_SIZE;
         rest = rest.subspan(PAT_PROGRAM_SIZE)) {
        const uint16_t number = patn_get_program(rest.data());
        const uint16_t pid = patn_get_pid(rest.data());
        if (!mayHavePmt(pid))
            continue;
        // A PAT names one network PID; a hostile one names any number of them.
        if (number == 0 && networkPid_ == NIT_PID) {
            networkPid_ = pid;
            watch(pid);
        } else if (number != 0 && programmes_.size() < kMostProgrammes &&
                   programmes_.try_emplace(number, Programme{pid, std::nullopt, {}}).second)
            watch(pid);
    }
}

bool PsiTables::addPmt(uint16_t pid, Bytes section) {
    const auto found = programmes_.find(pmt_get_program(section.data()));
    if (found == programmes_.end() || found->second.pmtPid != pid)
        return false;
    const size_t descriptors =
        section.size() < PMT_HEADER_SIZE ? 0 : pmt_get_desclength(section.data());
    if (section.size() < PMT_HEADER_SIZE + descriptors) {
        ++damaged_;
        return false;
    }
    Programme& programme = found->second;
    const uint16_t pcrPid = pmt_get_pcrpid(section.data());
    programme.pcrPid = pcrPid == kNoPcrPid ? std::nullopt : std::optional(pcrPid);
    programme.streams.clear();
    programme.accessPids = readAccessPids(section.subspan(PMT_HEADER_SIZE, descriptors));
    programme.described = true;
    for (Bytes rest = section.subspan(PMT_HEADER_SIZE + descriptors); rest.size() >= PMT_ES_SIZE;) {
        const size_t length = PMT_ES_SIZE + pmtn_get_desclength(rest.data());
        if (rest.size() < length) {
            ++damaged_;
            return false;
        }
        const Bytes loop = rest.subspan(PMT_ES_SIZE, length - PMT_ES_SIZE);
        programme.streams.push_back(
            makeStream(pmtn_get_pid(rest.data()), pmtn_get_streamtype(rest.data()), loop));
        for (const uint16_t access : readAccessPids(loop))
            programme.accessPids.push_back(access);
        rest = rest.subspan(length);
    }
    return true;
}

bool PsiTables::addSdt(Bytes section) {
    constexpr uint8_t kServiceDescriptor = 0x48;
    if (section.size() < SDT_HEADER_SIZE)
        return false;
    for (Bytes rest = section.subspan(SDT_HEADER_SIZE); rest.size() >= SDT_SERVICE_SIZE;) {
        const size_t length = SDT_SERVICE_SIZE + sdtn_get_desclength(rest.data());
        if (rest.size() < length) {
            ++damaged_;
            return false;
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
    return true;
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
