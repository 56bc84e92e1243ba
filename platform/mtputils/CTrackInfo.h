#pragma once
// The tags of one MTP track, as MtpUtils::getMetadataFromMTPFile reads them
// from the file's content: UTF-8 texts, "" when a tag is missing. A plain
// value; not shared between threads.

#include <string>

class CTrackInfo {
public:
    const std::string& getTitle() const { return title; }
    const std::string& getArtist() const { return artist; }
    const std::string& getAlbum() const { return album; }
    const std::string& getGenre() const { return genre; }
    const std::string& getComposer() const { return composer; }

    void setTitle(const std::string& text) { title = text; }
    void setArtist(const std::string& text) { artist = text; }
    void setAlbum(const std::string& text) { album = text; }
    void setGenre(const std::string& text) { genre = text; }
    void setComposer(const std::string& text) { composer = text; }

private:
    std::string title;
    std::string artist;
    std::string album;
    std::string genre;
    std::string composer;
};
