# The headers that are installed: those that agents of one's own include, and what these need to be compiled.
# Every other header is the libraries' own affair. Package.HeadersStandAlone compiles each of these alone.
set(KORU_PLATFORM_HEADERS
  Brio/CorruptionDetectedException.h
  HalSpiAccel/Accel.h
  Hardware/KoruRegFile.h Hardware/Relay.h Hardware/RelayRequest.h
  Keel/GenericSigbusHandler.h
  Orb/Anchor.h Orb/Assert.h Orb/Backoff.h Orb/Collection.h Orb/Counter.h Orb/Descriptor.h Orb/DirectoryWatch.h Orb/Entity.h
  Orb/EntityStrep.h Orb/EntityType.h Orb/Enum.h Orb/EventLoop.h Orb/Exception.h Orb/Export.h Orb/Fetch.h
  Orb/FlatCollection.h Orb/Hash.h Orb/LoopTask.h Orb/Notifiee.h Orb/Notifier.h Orb/PositionIndex.h Orb/Ptr.h
  Orb/Request.h Orb/Seldom.h Orb/Slab.h Orb/Spread.h Orb/Strep.h Orb/StrepPieces.h Orb/String.h Orb/Trace.h Orb/Value.h
  OrbPool/EntityManager.h
  Ore/Central.h
  Plat/Pax.h Plat/PciPaxImpl.h
  Shoal/CollectionControl.h Shoal/Layout.h Shoal/MountStatus.h Shoal/ShoalMap.h Shoal/StatePath.h
  Shoal/TableInfo.h Shoal/TableView.h
  Smbus/Bus.h Smbus/RelayAddress.h
  Spi/Config.h Spi/Request.h Spi/SpiSm.h Spi/Status.h
)
set(KORU_REGFILE_HEADERS
  KoruRegFile/AccessObserver.h KoruRegFile/AwaitAccess.h KoruRegFile/BaseTransportMethodImpl.h KoruRegFile/ChipModels.h
  KoruRegFile/Export.h
  KoruRegFile/FieldNamePool.h KoruRegFile/FieldNames.h KoruRegFile/I2cTransportMethodImpl.h
  KoruRegFile/I2cTransportRelayImpl.h KoruRegFile/I2cTransportRelayImplSm.h KoruRegFile/I2cTransportRequest.h
  KoruRegFile/LogicalChip.h KoruRegFile/LogicalFieldHandle.h KoruRegFile/LogicalSms.h KoruRegFile/LogicalTypes.h
  KoruRegFile/MockTransportMethodImpl.h KoruRegFile/NameQuery.h KoruRegFile/PciTransportMethodImpl.h
  KoruRegFile/PhysicalTypes.h
  KoruRegFile/RegisterBits.h KoruRegFile/RegisterFile.h KoruRegFile/RegisterFileCheck.h
  KoruRegFile/RegisterFileHelper.h KoruRegFile/RegisterHandle.h KoruRegFile/ShadowFieldTypes.h
  KoruRegFile/ShadowSms.h KoruRegFile/ShoalTypes.h KoruRegFile/SpiTransportMethodImpl.h
  KoruRegFile/SystemChipStatusSm.h KoruRegFile/SystemStatus.h KoruRegFile/Translation.h
  KoruRegFile/TransportDescriptor.h KoruRegFile/TransportDescriptorEnum.h KoruRegFile/TransportError.h
  KoruRegFile/TransportMethod.h KoruRegFile/TransportMethodError.h KoruRegFile/Utils.h
)
set(KORU_BOARD_HEADERS
  board/Export.h
  board/agent/Agent.h board/agent/Signals.h
  board/chips/AccessCounts.h board/chips/BoardKeeper.h board/chips/BoardWatch.h board/chips/FieldWrites.h board/chips/Health.h
  board/chips/History.h
  board/chips/InstanceLock.h board/chips/OpenTransport.h board/chips/Options.h board/chips/StateFiles.h
  board/description/ChipBuilder.h board/description/Description.h board/description/Meaning.h
  board/description/SystemFile.h
  board/devices/BusRecorder.h board/devices/Bytes.h board/devices/Format.h board/devices/FormatTransport.h board/devices/I2cFormat.h
  board/devices/PostingTransport.h board/devices/Probe.h board/devices/Recording.h board/devices/ReplayTransport.h
  board/devices/SpiFormat.h board/devices/Transport.h
  board/devices/TransportKind.h board/devices/WindowFormat.h
  board/service/Server.h
)

# koru_install_headers(FROM header...): below include/koruregfile, so that none of the folders' names, which are
# short, meets somebody else's.
function(koru_install_headers from)
  foreach(header ${ARGN})
    get_filename_component(folder ${header} DIRECTORY)
    install(FILES ${from}/${header} DESTINATION ${KORU_INCLUDE_DIR}/${folder} COMPONENT development)
  endforeach()
endfunction()
