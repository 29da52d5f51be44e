#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "firmware/data_stream.h"
#include "firmware/smbios_walk.h"
#include "platform/export.h"

class CDeviceBios;

// The machine's SMBIOS data in memory, its structures reachable by type.
//
// Used by one thread from connect to disconnect. The object counts as connected while it holds a structure table; what
// getStructuresByType hands out points into that table and is valid until the next connect or disconnect. Every failure
// is false plus a trace line.
class RAVD_EXPORT CSMBios {
 public:
  // Not connected; nothing is read before connect.
  CSMBios() = default;
  // Disconnects when connected.
  ~CSMBios();
  CSMBios(const CSMBios&) = delete;
  CSMBios& operator=(const CSMBios&) = delete;

  // Fetches the data from the operating system (needs root), else from the legacy BIOS area, and builds the index;
  // starts anew when connected. When the table turns out to be corrupt the result is false, the index empty, and the
  // caller disconnects.
  bool connect();
  // Does nothing when not connected.
  void disconnect();
  // Whether a structure table is held.
  bool isConnected() const { return !m_Data.IsEmpty(); }

  // The structures of a type in table order, null when it does not occur.
  const SmbiosStructureList* getStructuresByType(uint8_t type) const;

  // Revision of the tables (DMTF DSP0134, 5.2); 0.0 when unknown or disconnected:
  uint8_t getRevisionMajor() const { return m_RevisionMajor; }
  uint8_t getRevisionMinor() const { return m_RevisionMinor; }
  // As a 32-bit entry point of the legacy BIOS area says, else as found.
  unsigned int getStructureCount() const { return m_StructureCount; }
  // Reason of the last failure of the legacy BIOS scan or of the walk.
  const std::string& getLastErrorText() const { return m_LastErrorText; }

  // The steps of connect.

  // An anchor that is not known leaves the revision as it was.
  void setSmbiosRevisionFromHeader();

  // Checks a 32-bit entry point; the bytes given are all that may be read, its own length field included. Address,
  // length and structure count are set from 31 bytes or more, before the checksum is tested and whatever its result;
  // fewer bytes, or a length field beyond them, fail. headerOut is set on success, to as many bytes as the length field
  // says. The intermediate checksum is not tested.
  bool checkSmbiosHeader(std::span<const unsigned char> entryPoint, uint32_t& tableAddress, unsigned long& tableLength,
                         CDataStream& headerOut);

  // Searches 0xE0000-0xFFFFF for the 32-bit anchor; the first paragraph that begins with it decides. The outputs are
  // set on success.
  bool getSmbiosDataFromBiosShadowMemory(CDataStream& header, CDataStream& data);

  // Builds the index anew from the structure table.
  bool buildStructureList();

 private:
  void fetch();
  bool buildIndex();
  bool findShadowTable(CDeviceBios& device, CDataStream& header, CDataStream& data);
  bool findEntryPoint(std::span<const unsigned char> area, uint32_t& tableAddress, unsigned long& tableLength,
                      CDataStream& header);
  void clear();

  uint8_t m_RevisionMajor = 0;
  uint8_t m_RevisionMinor = 0;
  CDataStream m_Header;
  CDataStream m_Data;
  SmbiosStructureIndex m_Index;
  unsigned int m_StructureCount = 0;  // 0 = not given
  std::string m_LastErrorText;
};
