#pragma once

// Every public header of the library, a group for each floor.

#include "mivra/common/runtime/Annotations.h"
#include "mivra/common/runtime/CritSec.h"
#include "mivra/common/runtime/Export.h"
#include "mivra/common/runtime/GeneralException.h"
#include "mivra/common/runtime/IReferenceable.h"
#include "mivra/common/runtime/Version.h"

#include "mivra/common/buffers/AllocatorProperties.h"
#include "mivra/common/buffers/DefaultPacketBufferAllocator.h"
#include "mivra/common/buffers/FileStream.h"
#include "mivra/common/buffers/IStream.h"
#include "mivra/common/buffers/MediaGlobal.h"
#include "mivra/common/buffers/PacketBuffer.h"
#include "mivra/common/buffers/PacketBufferAllocator.h"
#include "mivra/common/buffers/StreamWindow.h"
#include "mivra/common/buffers/VersatileBuffer.h"
#include "mivra/common/buffers/VersatileBufferStream.h"

#include "mivra/common/binary/BigEndianBitConverter.h"
#include "mivra/common/binary/EndianBinaryReader.h"
#include "mivra/common/binary/EndianBinaryWriter.h"
#include "mivra/common/binary/EndianBitConverter.h"
#include "mivra/common/binary/Endianness.h"
#include "mivra/common/binary/LittleEndianBitConverter.h"

#include "mivra/common/model/Codec.h"
#include "mivra/common/model/ContentType.h"
#include "mivra/common/model/MediaTime.h"
#include "mivra/common/model/MediaType.h"
#include "mivra/common/model/Metadata.h"
#include "mivra/common/model/PixelFormat.h"
#include "mivra/common/model/Rational.h"
#include "mivra/common/model/SampleFormat.h"

#include "mivra/ffmpeg/FfmpegInventory.h"
#include "mivra/ffmpeg/FfmpegOptional.h"
#include "mivra/ffmpeg/FfmpegProxy.h"
