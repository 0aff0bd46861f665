#include "mivra/media/EncoderParameters.h"

namespace Mivra::Media {

Common::MediaFramework EncoderParameters::DefaultPreferredMediaFramework = Common::MediaFramework::Automatic;
bool EncoderParameters::DefaultAllowHardwareAcceleration = true;

}  // namespace Mivra::Media
