#pragma once

// Stands in front of a chip's transport, and has a recorder hear of what it makes of accesses.

#include <memory>
#include <string_view>

#include "KoruRegFile/BaseTransportMethodImpl.h"
#include "board/devices/BusRecorder.h"

namespace Board {

class BusTap : public KoruRegFile::BaseTransportMethodImpl {
 public:
  BusTap(std::unique_ptr<BaseTransportMethodImpl> inner, std::shared_ptr<BusRecorder> recorder)
      : BaseTransportMethodImpl(inner->regFileHelper()),
        recorder_(std::move(recorder)),
        inner_(std::move(inner)) {}
  ~BusTap() override;

  uint32_t regRead(const char* regName) override;
  void regWrite(const char* regName, uint32_t value) override;
  void regReadWithCallback(const char* regName, KoruRegFile::RegReadCallback callback) override;
  void regWriteWithCallback(const char* regName, uint32_t value,
                            KoruRegFile::RegWriteCallback callback) override;
  void regReadWithOutcome(const char* regName, KoruRegFile::AccessCallback callback) override;
  void regWriteWithOutcome(const char* regName, uint32_t value,
                           KoruRegFile::AccessCallback callback) override;
  uint32_t foundRegRead(const Hardware::KoruRegFile::HardwareRegister& reg) override;
  void foundRegWrite(const Hardware::KoruRegFile::HardwareRegister& reg, uint32_t value) override;

 private:
  template <class Operation>
  void make(BusRecorder::Access& access, Operation operation);
  template <class Operation>
  uint32_t read(std::string_view reg, Operation operation);
  template <class Operation>
  void write(std::string_view reg, uint32_t value, Operation operation);

  const std::shared_ptr<BusRecorder> recorder_;
  // Goes first, with what it has not ended.
  const std::unique_ptr<BaseTransportMethodImpl> inner_;
};

}  // namespace Board
