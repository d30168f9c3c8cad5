#include "platform/media/metadata_item.h"

#include <array>
#include <utility>

namespace sv::media {
namespace {

// "encoder" is what FFmpeg's MP4 reader shows for both the encoding-tool and
// the encoded-by atoms; the content identifier has no common tag and keeps
// its reverse-DNS name.
constexpr std::array<std::pair<const char*, const char*>, 6> kTags{{
    {kMetadataKeyTitle, "title"},
    {kMetadataKeyArtist, "artist"},
    {kMetadataKeyContentIdentifier, kMetadataKeyContentIdentifier},
    {kMetadataKeyEncodedBy, "encoder"},
    {kMetadataKeyDescription, "description"},
    {kMetadataKeyGenre, "genre"},
}};

}  // namespace

std::string MovieMetadataItem::description() const {
    return "<MovieMetadataItem key=" + key + " value=" + (value ? *value : "(null)") +
           " keySpace=" + keySpace + ">";
}

std::string fileTagForKey(const std::string& key) {
    for (const auto& [k, tag] : kTags)
        if (key == k) return tag;
    return key;
}

std::string keyForFileTag(const std::string& tag) {
    for (const auto& [k, t] : kTags)
        if (tag == t) return k;
    return tag;
}

}  // namespace sv::media
