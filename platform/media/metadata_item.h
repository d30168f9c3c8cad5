// Movie metadata items: a key of the movie metadata key space (reverse-DNS
// names) and an optional string value. The writer stores them in the
// movie's metadata box; docs/movie-metadata.md lists the tag each key
// becomes in the file.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace sv::media {

// The key space of the items below.
inline constexpr const char* kMetadataKeySpaceMovie = "org.sorvel.movie-metadata";

// The six standard keys.
inline constexpr const char* kMetadataKeyTitle = "org.sorvel.title";
inline constexpr const char* kMetadataKeyArtist = "org.sorvel.artist";
inline constexpr const char* kMetadataKeyContentIdentifier = "org.sorvel.content-identifier";
inline constexpr const char* kMetadataKeyEncodedBy = "org.sorvel.encoded-by";
inline constexpr const char* kMetadataKeyDescription = "org.sorvel.description";
inline constexpr const char* kMetadataKeyGenre = "org.sorvel.genre";

// Mutable, like every item made by the writer before it is handed over;
// not thread-safe while being filled.
struct MovieMetadataItem {
    std::string key;
    std::optional<std::string> value;
    std::string keySpace;

    std::string description() const;
};

using MetadataList = std::vector<std::shared_ptr<MovieMetadataItem>>;

// The tag name under which an item is stored in the file ("title",
// "artist", ...); the key itself for keys outside the standard six.
std::string fileTagForKey(const std::string& key);
// The reverse: the item key for a tag read from a file.
std::string keyForFileTag(const std::string& tag);

}  // namespace sv::media
