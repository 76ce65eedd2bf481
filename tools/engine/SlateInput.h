// A file that is shown while there is nothing better.
#ifndef TOOLS_ENGINE_SLATEINPUT_H
#define TOOLS_ENGINE_SLATEINPUT_H

#include <cstdint>
#include <optional>
#include <span>
#include <string>

#include "Pacer.h"
#include "Splicer.h"
#include "engine/StreamInput.h"
#include "media/PacketSource.h"

// Plays from the beginning each time when it is on air, at its own pace or the one that is given,
// again and again. The file is opened anew then, so another one may take its place meanwhile; where
// that cannot be read, the one is played that was there before.
class SlateInput : public StreamInput {
  public:
    SlateInput(const std::string& path, std::optional<uint32_t> bitrate_bps)
        : path_(path), bitrate_bps_(bitrate_bps) {}

    Clock::time_point attend(Clock::time_point now) override;
    std::string trouble() const override { return trouble_; }
    QXV_RTP_Statistics statistics() const override;  // SocketOpen: the file can be played
    bool isRtp() const override { return false; }
    uint32_t measuredBitrate() const override { return pacer_ ? pacer_->status().rate_bps : 0; }
    size_t receive(std::span<uint8_t> space) override;
    void setOnAir(bool onAir) override;

  private:
    void open(Clock::time_point now);
    void close(Clock::time_point now, const std::string& trouble);
    void play(Clock::time_point now);

    const std::string path_;
    const std::optional<uint32_t> bitrate_bps_;
    std::optional<PacketSource> source_;
    std::optional<ts::Pacer> pacer_;
    ts::Splicer splicer_;  // the rounds
    uint64_t loops_ = 0;
    uint64_t firstLoop_ = 0;  // of the pacer
    bool begun_ = false;      // packets have been found
    bool ready_ = false;      // and their pace
    bool onAir_ = false;
    ts::Time now_{};
    Clock::time_point retry_{};
    std::string trouble_;
};

#endif
