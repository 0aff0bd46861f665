#pragma once

// Every public header of the library.

#include "mivra/common/runtime/Annotations.h"
#include "mivra/common/runtime/CritSec.h"
#include "mivra/common/runtime/Export.h"
#include "mivra/common/runtime/GeneralException.h"
#include "mivra/common/runtime/IReferenceable.h"
#include "mivra/ffmpeg/FfmpegOptional.h"
#include "mivra/ffmpeg/FfmpegProxy.h"
