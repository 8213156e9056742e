#include <kxgeom/platform/progress.h>

#include <algorithm>
#include <cmath>

namespace kxUtil {

void Progress::set(double fraction) {
  fraction_ = std::min(1.0, std::max(0.0, fraction));
  if (parent_) {
    parent_->childAdvanced(fraction_, base_, share_);
  } else {
    notify();
  }
}

void Progress::childAdvanced(double childFraction, double base, double share) {
  set(base + share * childFraction);
}

void Progress::setCaption(const char* caption) {
  caption_ = caption ? caption : "";
  captionChanged(caption_.c_str());
}

void Progress::captionChanged(const char* caption) {
  if (parent_) {
    parent_->captionChanged(caption);
    return;
  }
  reportedCaption_ = caption;
  lastReported_ = -1;  // force the observer call
  notify();
}

bool Progress::cancelled() const {
  return cancelled_.load(std::memory_order_relaxed) || (parent_ && parent_->cancelled());
}

void Progress::subPhase(double weight, Progress& local) {
  local.parent_ = this;
  local.base_ = nextBase_;
  local.share_ = weight;
  local.fraction_ = 0.0;
  nextBase_ += weight;
}

double Progress::overall() const { return parent_ ? parent_->overall() : fraction_; }

void Progress::notify() {
  if (!observer_) return;
  const int permille = static_cast<int>(std::lround(fraction_ * 1000.0));
  if (permille == lastReported_) return;
  lastReported_ = permille;
  observer_(fraction_, reportedCaption_.c_str());
}

}  // namespace kxUtil
