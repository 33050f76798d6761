#include <tessrakite/gif/GifManager.hpp>

#include <algorithm>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include <tessrakite/gif/GifDecoder.hpp>
#include <tessrakite/platform/Console.hpp>
#include <tessrakite/platform/Platform.hpp>

namespace tessrakite {

GifTarget::~GifTarget() = default;

namespace {

// A timer may fire a hair before the due time it was set for (the delay is recomputed
// from the clock); a frame this close to due is shown now.
constexpr double kDueSlack = 0.0005;
// A host that stopped pumping the main queue for longer than this restarts its GIFs'
// schedules from now instead of racing through the missed frames.
constexpr double kResyncAfter = 1.0;

/// Bytes of decoded frames kept, shared by every GIF against one limit.
class Budget {
public:
    explicit Budget(std::size_t limit) : limit_(limit) {}
    bool reserve(std::size_t bytes) {
        std::lock_guard lock(mutex_);
        if (bytes > limit_ || used_ > limit_ - bytes) return false;
        used_ += bytes;
        return true;
    }
    void release(std::size_t bytes) {
        std::lock_guard lock(mutex_);
        used_ -= std::min(bytes, used_);
    }
    void setLimit(std::size_t limit) {
        std::lock_guard lock(mutex_);
        limit_ = limit;
    }
    std::size_t limit() const {
        std::lock_guard lock(mutex_);
        return limit_;
    }
    std::size_t used() const {
        std::lock_guard lock(mutex_);
        return used_;
    }

private:
    mutable std::mutex mutex_;
    std::size_t used_ = 0;
    std::size_t limit_;
};

/// One decoded GIF, shared by every target playing the same bytes.
struct Animation {
    std::shared_ptr<const Data> bytes;
    std::size_t hash = 0;
    std::vector<double> delays;  // one per frame
    int plays = 1;               // 0: forever
    std::size_t frameBytes = 0;
    std::shared_ptr<Budget> budget;
    // Kept frames, all or none (guarded by the manager's mutex once shared).
    std::vector<std::shared_ptr<platform::Image>> frames;

    ~Animation() { budget->release(frames.size() * frameBytes); }
};

struct Playback {
    std::weak_ptr<GifTarget> target;
    std::uint64_t id = 0;
    // Guarded by the manager's mutex.
    std::shared_ptr<Animation> animation;  // nothing while fetching or decoding
    std::size_t index = 0;
    int playsDone = 0;
    double due = 0;
    // Main queue only: the re-decoding stream of a GIF whose frames are not kept.
    std::unique_ptr<GifDecoder> stream;
};

using TargetKey = std::weak_ptr<GifTarget>;

std::size_t hashBytes(const Data& bytes) {
    return std::hash<std::string_view>{}(std::string_view(reinterpret_cast<const char*>(bytes.data()), bytes.size()));
}

}  // namespace

struct GifManager::State : std::enable_shared_from_this<State> {
    mutable std::mutex mutex;
    std::shared_ptr<Budget> budget = std::make_shared<Budget>(kDefaultMemoryLimit);
    std::map<TargetKey, std::shared_ptr<Playback>, std::owner_less<TargetKey>> playbacks;
    std::unordered_multimap<std::size_t, std::weak_ptr<Animation>> animations;
    std::uint64_t nextId = 1;
    // The one display timer: only the item of the current generation does anything.
    std::uint64_t timerGeneration = 0;
    std::optional<double> timerDue;
    std::weak_ptr<platform::RunLoop> timerLoop;

    std::uint64_t begin(const std::shared_ptr<GifTarget>& target) {
        auto playback = std::make_shared<Playback>();
        playback->target = target;
        std::lock_guard lock(mutex);
        playback->id = nextId++;
        playbacks[TargetKey(target)] = playback;
        return playback->id;
    }

    std::shared_ptr<Playback> findLocked(std::uint64_t id) const {
        for (const auto& [key, playback] : playbacks)
            if (playback->id == id) return playback;
        return nullptr;
    }

    bool isCurrentLocked(const std::shared_ptr<Playback>& playback) const {
        auto it = playbacks.find(playback->target);
        return it != playbacks.end() && it->second == playback;
    }

    void forget(std::uint64_t id) {
        std::lock_guard lock(mutex);
        for (auto it = playbacks.begin(); it != playbacks.end(); ++it)
            if (it->second->id == id) {
                playbacks.erase(it);
                return;
            }
    }

    void forget(const std::shared_ptr<Playback>& playback) {
        std::lock_guard lock(mutex);
        if (isCurrentLocked(playback)) playbacks.erase(playback->target);
    }

    bool wanted(std::uint64_t id) const {
        std::lock_guard lock(mutex);
        auto playback = findLocked(id);
        return playback && !playback->target.expired();
    }

    // Utility queue: the GIF of these bytes, decoded once and shared.
    std::shared_ptr<Animation> animationFor(const std::shared_ptr<const Data>& bytes) {
        const std::size_t hash = hashBytes(*bytes);
        {
            std::lock_guard lock(mutex);
            for (auto it = animations.begin(); it != animations.end();) {
                auto animation = it->second.lock();
                if (!animation) {
                    it = animations.erase(it);
                    continue;
                }
                if (animation->hash == hash && *animation->bytes == *bytes) return animation;
                ++it;
            }
        }
        auto decoder = GifDecoder::open(bytes);
        if (!decoder) return nullptr;
        auto animation = std::make_shared<Animation>();
        animation->bytes = bytes;
        animation->hash = hash;
        animation->budget = budget;
        animation->frameBytes =
            static_cast<std::size_t>(decoder->width()) * static_cast<std::size_t>(decoder->height()) * 4;
        // Frames are kept while they fit; at the first that does not, none are.
        bool keep = true;
        while (auto frame = decoder->next()) {
            animation->delays.push_back(frame->delay);
            if (!keep) continue;
            if (budget->reserve(animation->frameBytes)) {
                animation->frames.push_back(std::move(frame->image));
            } else {
                keep = false;
                budget->release(animation->frames.size() * animation->frameBytes);
                std::vector<std::shared_ptr<platform::Image>>().swap(animation->frames);
            }
        }
        if (animation->delays.empty()) return nullptr;
        const auto loops = decoder->loopCount();
        animation->plays = !loops ? 1 : (*loops == 0 ? 0 : *loops + 1);
        std::lock_guard lock(mutex);
        animations.emplace(hash, animation);
        return animation;
    }

    void decodeThenStart(std::uint64_t id, std::shared_ptr<const Data> bytes, std::string what) {
        auto platform = platform::currentPlatform();
        std::weak_ptr<platform::RunLoop> loop = platform->runLoop;
        platform->utilityQueue->async([weak = weak_from_this(), id, bytes = std::move(bytes), what = std::move(what), loop] {
            auto self = weak.lock();
            if (!self || !self->wanted(id)) return;
            auto animation = self->animationFor(bytes);
            if (!animation) {
                Console::print("GIF: cannot decode " + what);
                self->forget(id);
                return;
            }
            if (auto main = loop.lock())
                main->async([weak, id, animation] {
                    if (auto s = weak.lock()) s->start(id, animation);
                });
        });
    }

    // Main queue.
    void start(std::uint64_t id, const std::shared_ptr<Animation>& animation) {
        const double now = platform::currentPlatform()->clock->now();
        std::shared_ptr<Playback> playback;
        {
            std::lock_guard lock(mutex);
            playback = findLocked(id);
            if (!playback) return;
            playback->animation = animation;
            playback->index = 0;
            playback->playsDone = 0;
            playback->due = now + animation->delays[0];
        }
        show(playback, 0);
        // A still picture has nothing more to show.
        if (animation->delays.size() == 1) forget(playback);
        reschedule();
    }

    // Main queue: frame `index` of the playback's GIF, kept or decoded again.
    std::shared_ptr<platform::Image> frameFor(Playback& playback, std::size_t index) {
        std::shared_ptr<Animation> animation;
        {
            std::lock_guard lock(mutex);
            animation = playback.animation;
            if (!animation->frames.empty()) {
                playback.stream.reset();
                return animation->frames[index];
            }
        }
        // Decoding is sequential: a stream past the wanted frame starts over.
        if (!playback.stream || playback.stream->framesRead() > index) playback.stream = GifDecoder::open(animation->bytes);
        if (!playback.stream) return nullptr;
        std::optional<GifFrame> frame;
        while (playback.stream->framesRead() <= index)
            if (!(frame = playback.stream->next())) return nullptr;
        return frame->image;
    }

    // Main queue.
    void show(const std::shared_ptr<Playback>& playback, std::size_t index) {
        auto image = frameFor(*playback, index);
        auto target = playback->target.lock();
        if (!image || !target) {
            forget(playback);
            return;
        }
        {
            // stop() on the main queue, even from another target's showFrame, wins.
            std::lock_guard lock(mutex);
            if (!isCurrentLocked(playback)) return;
        }
        target->showFrame(std::move(image));
    }

    // Main queue: the display timer.
    void tick(std::uint64_t generation) {
        const double now = platform::currentPlatform()->clock->now();
        std::vector<std::pair<std::shared_ptr<Playback>, std::size_t>> due;
        {
            std::lock_guard lock(mutex);
            if (generation != timerGeneration) return;
            timerDue.reset();
            for (auto it = playbacks.begin(); it != playbacks.end();) {
                auto current = it->second;
                auto& playback = *current;
                if (playback.target.expired()) {
                    it = playbacks.erase(it);
                    continue;
                }
                ++it;
                if (!playback.animation || playback.due > now + kDueSlack) continue;
                const Animation& animation = *playback.animation;
                std::size_t index = playback.index + 1;
                if (index == animation.delays.size()) {
                    index = 0;
                    ++playback.playsDone;
                }
                if (animation.plays != 0 && playback.playsDone >= animation.plays) continue;
                playback.index = index;
                playback.due += animation.delays[index];
                if (playback.due < now - kResyncAfter) playback.due = now + animation.delays[index];
                due.emplace_back(std::move(current), index);
            }
            // Finished playbacks leave their last frame showing.
            for (auto it = playbacks.begin(); it != playbacks.end();) {
                const auto& playback = *it->second;
                if (playback.animation && playback.animation->plays != 0 &&
                    playback.playsDone >= playback.animation->plays)
                    it = playbacks.erase(it);
                else
                    ++it;
            }
        }
        for (const auto& [playback, index] : due) show(playback, index);
        reschedule();
    }

    void reschedule() {
        auto platform = platform::currentPlatform();
        std::uint64_t generation = 0;
        double delay = 0;
        {
            std::lock_guard lock(mutex);
            std::optional<double> earliest;
            for (const auto& [key, playback] : playbacks)
                if (playback->animation && (!earliest || playback->due < *earliest)) earliest = playback->due;
            if (!earliest) {
                ++timerGeneration;
                timerDue.reset();
                return;
            }
            if (timerDue && *timerDue <= *earliest && timerLoop.lock() == platform->runLoop) return;
            generation = ++timerGeneration;
            timerDue = earliest;
            timerLoop = platform->runLoop;
            delay = *earliest - platform->clock->now();
        }
        platform->runLoop->asyncAfter(delay, [weak = weak_from_this(), generation] {
            if (auto self = weak.lock()) self->tick(generation);
        });
    }

    void evictOverLimit() {
        std::lock_guard lock(mutex);
        for (auto& [hash, weak] : animations) {
            if (budget->used() <= budget->limit()) return;
            auto animation = weak.lock();
            if (!animation || animation->frames.empty()) continue;
            budget->release(animation->frames.size() * animation->frameBytes);
            std::vector<std::shared_ptr<platform::Image>>().swap(animation->frames);
        }
    }
};

GifManager& GifManager::shared() {
    static GifManager manager;
    return manager;
}

GifManager::GifManager() : state_(std::make_shared<State>()) {}
GifManager::~GifManager() = default;

void GifManager::play(Data bytes, std::shared_ptr<GifTarget> target) {
    if (!target) {
        Console::print("GIF: no target to play in");
        return;
    }
    const std::uint64_t id = state_->begin(target);
    state_->decodeThenStart(id, std::make_shared<const Data>(std::move(bytes)), "the GIF bytes");
}

void GifManager::play(const Url& url, std::shared_ptr<GifTarget> target) {
    if (!target) {
        Console::print("GIF: no target to play in");
        return;
    }
    const std::uint64_t id = state_->begin(target);
    platform::UrlRequest request(url);
    platform::currentPlatform()->urlSession->dataTask(
        std::move(request), [weak = std::weak_ptr<State>(state_), id, text = url.absoluteString()](const platform::UrlResult& result) {
            auto self = weak.lock();
            if (!self || !self->wanted(id)) return;
            std::string failure;
            if (result.error)
                failure = result.error->localizedDescription();
            else if (result.response->statusCode < 200 || result.response->statusCode > 299)
                failure = "HTTP status " + std::to_string(result.response->statusCode);
            else if (!result.data || result.data->empty())
                failure = "no data";
            if (!failure.empty()) {
                Console::print("GIF: cannot load " + text + ": " + failure);
                self->forget(id);
                return;
            }
            self->decodeThenStart(id, std::make_shared<const Data>(*result.data), text);
        });
}

void GifManager::stop(const std::shared_ptr<GifTarget>& target) {
    if (!target) return;
    {
        std::lock_guard lock(state_->mutex);
        state_->playbacks.erase(TargetKey(target));
    }
    state_->reschedule();
}

void GifManager::setMemoryLimit(std::size_t bytes) {
    state_->budget->setLimit(bytes);
    state_->evictOverLimit();
}

std::size_t GifManager::memoryLimit() const { return state_->budget->limit(); }
std::size_t GifManager::memoryUsage() const { return state_->budget->used(); }

std::size_t GifManager::playingCount() const {
    std::lock_guard lock(state_->mutex);
    return static_cast<std::size_t>(std::count_if(state_->playbacks.begin(), state_->playbacks.end(),
                                                  [](const auto& entry) { return !entry.second->target.expired(); }));
}

}  // namespace tessrakite
