#pragma once

namespace Mivra::Codecs::H264 {

/// payloadType of an SEI message (ITU-T H.264 D.1). Any other number may be cast to it.
enum class SeiPayloadTypes : int {
    BufferingPeriod = 0,
    PicTiming = 1,
    PanScanRect = 2,
    FillerPayload = 3,
    UserDataRegisteredItuTT35 = 4,
    UserDataUnregistered = 5,
    RecoveryPoint = 6,
    DecRefPicMarkingRepetition = 7,
    SparePic = 8,
    SceneInfo = 9,
    SubSeqInfo = 10,
    SubSeqLayerCharacteristics = 11,
    SubSeqCharacteristics = 12,
    FullFrameFreeze = 13,
    FullFrameFreezeRelease = 14,
    FullFrameSnapshot = 15,
    ProgressiveRefinementSegmentStart = 16,
    ProgressiveRefinementSegmentEnd = 17,
    MotionConstrainedSliceGroupSet = 18,
    FilmGrainCharacteristics = 19,
    DeblockingFilterDisplayPreference = 20,
    StereoVideoInfo = 21,
    PostFilterHint = 22,
    ToneMappingInfo = 23,
    FramePackingArrangement = 45,
    DisplayOrientation = 47,
    MasteringDisplayColourVolume = 137,
    ContentLightLevelInfo = 144,
};

}  // namespace Mivra::Codecs::H264
