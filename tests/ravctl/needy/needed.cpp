extern "C" __attribute__((visibility("default"))) bool AnswerOfNeeded() {
  return false;
}
