#pragma once

#include <cstddef>
#include <memory>

#include <tessrakite/Export.hpp>
#include <tessrakite/gif/GifTarget.hpp>
#include <tessrakite/platform/PlistValue.hpp>
#include <tessrakite/platform/Url.hpp>

namespace tessrakite {

/// Plays animated GIFs into targets (image views).
///
/// A GIF is fetched with the platform's URL session, decoded on the utility queue, and
/// then played on the main queue: each frame for its delay, honouring the loop count.
/// One display timer on the main queue drives every playing target. Decoded frames are
/// kept while all GIFs' frames fit the memory limit; a GIF that does not fit keeps only
/// its bytes and decodes each frame again when it is due. Targets are held weakly: a
/// destroyed target stops its playback. Callable from any thread.
class TESSRA_EXPORT GifManager {
public:
    static constexpr std::size_t kDefaultMemoryLimit = 20u * 1024 * 1024;

    /// The process's manager.
    static GifManager& shared();

    GifManager();
    ~GifManager();
    GifManager(const GifManager&) = delete;
    GifManager& operator=(const GifManager&) = delete;

    /// Fetches the GIF and plays it in `target`, replacing what the target played.
    void play(const Url& url, std::shared_ptr<GifTarget> target);
    /// Plays GIF bytes in `target`, replacing what the target played.
    void play(Data bytes, std::shared_ptr<GifTarget> target);
    /// Stops the target's playback and forgets the target. Called on the main queue, no
    /// frame reaches the target after it returns. The target keeps its last frame.
    void stop(const std::shared_ptr<GifTarget>& target);

    /// Bytes of decoded frames that may be kept for all GIFs together.
    void setMemoryLimit(std::size_t bytes);
    std::size_t memoryLimit() const;
    /// Bytes of decoded frames kept now (never above the limit).
    std::size_t memoryUsage() const;
    /// Targets playing or waiting for their GIF.
    std::size_t playingCount() const;

    struct State;

private:
    std::shared_ptr<State> state_;
};

}  // namespace tessrakite
