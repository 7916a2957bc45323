// CPCCommunicationHardware: the list of the channels through which this machine can reach a
// receiver (serial ports, modems and ISDN adapters, dial-up entries, TCP/IP and the access
// router), persisted so that a configuration front end elsewhere can see what a server offers.
//
// Serialised form, little-endian and unpadded, getSize() = 9 + the channels' sizes:
//
//   offset 0, 4 bytes: head value (kept and carried, not used by the list)
//   offset 4, 1 byte:  head flag (the same)
//   offset 5, 4 bytes: count of channels
//   offset 9:          the channels in order, each as CComHW's form
//
// and of one channel, getSize() = length of the name + 5:
//
//   offset 0, 4 bytes:         type (a ChannelType)
//   offset 4, length + 1 bytes: the name with its terminating zero
//
// Loading empties the list first (not for a null buffer, which fails at once) and then takes
// the head and the channels in order, each advancing by its own size. Loads never read past
// the size bytes given: a head or a channel that does not lie wholly within them, or a name
// longer than 260 characters, ends the load with false, the channels read before it kept.
//
// Lifetime: a value; copies copy the list and the head.
// Thread safety: none; an object belongs to one thread at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "tessel/Export.h"
#include "tessel/persistence/IPersistData.h"

class TESSEL_API CPCCommunicationHardware : public IPersistData {
  public:
    // The kinds of channel.
    enum ChannelType : std::uint32_t {
        SerialPort = 0,
        Modem = 1,  // a modem or an ISDN adapter
        DialUpEntry = 2,
        TcpIp = 3,
        AccessRouter = 4,
    };

    // One channel: its type and its name of at most 260 characters.
    class TESSEL_API CComHW : public IPersistData {
      public:
        // The longest name kept, in characters.
        static constexpr std::size_t MaxName = 260;

        // Type 0 and an empty name.
        CComHW() = default;
        // type, and the first MaxName characters of name; a null name leaves it empty.
        CComHW(unsigned int type, char const* name);
        CComHW(const CComHW& other) = default;
        CComHW& operator=(const CComHW& other) = default;
        ~CComHW() override = default;

        // Reads the channel from buffer, of which size bytes are available. false, the
        // channel unchanged, for a null buffer, a form beyond size or a name longer than
        // MaxName.
        bool loadData(const unsigned char* buffer, size_t size) override;
        // Writes getSize() bytes; nothing if buffer is null or they exceed size.
        void saveData(unsigned char* buffer, size_t size) const override;
        // The length of the name + 5, in bytes.
        size_t getSize() const override;

        unsigned int GetType() const { return m_uiType; }
        // The name, NUL-terminated.
        const char* GetName() const { return m_szName; }

      private:
        std::uint32_t m_uiType = 0;
        char m_szName[MaxName + 1] = {};
    };

    // An empty list, head value and flag 0.
    CPCCommunicationHardware() = default;
    CPCCommunicationHardware(const CPCCommunicationHardware& other) = default;
    CPCCommunicationHardware& operator=(const CPCCommunicationHardware& other) = default;
    ~CPCCommunicationHardware() override = default;

    // Appends, without emptying the list first: every serial port (CSerialPorts, scanned
    // anew), every modem and then every ISDN adapter (CRasDevices), every dial-up entry
    // (CRasConnections), then "TCP/IP" and "AccessRouter". A name that cannot be fetched is
    // left out.
    void ScanComHW();

    // Loads the list and the head; see the file comment.
    bool loadData(const unsigned char* buffer, size_t size) override;
    // Writes the head, the count and each channel; nothing if buffer is null or getSize()
    // exceeds size.
    void saveData(unsigned char* buffer, size_t size) const override;
    // 9 + the sizes of the channels, in bytes.
    size_t getSize() const override;

    // The channels in list order.
    const std::vector<CComHW>& GetChannels() const { return m_vecComHW; }
    // Appends channel to the list.
    void AddChannel(const CComHW& channel) { m_vecComHW.push_back(channel); }
    // Empties the list; the head stays.
    void Clear() { m_vecComHW.clear(); }

    std::uint32_t GetHeadValue() const { return m_uiHeadValue; }
    void SetHeadValue(std::uint32_t value) { m_uiHeadValue = value; }
    std::uint8_t GetHeadFlag() const { return m_ucHeadFlag; }
    void SetHeadFlag(std::uint8_t flag) { m_ucHeadFlag = flag; }

  private:
    std::vector<CComHW> m_vecComHW;
    std::uint32_t m_uiHeadValue = 0;
    std::uint8_t m_ucHeadFlag = 0;
};
