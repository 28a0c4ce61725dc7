AnswerlessTestCase {
    name: "frozenstandin"
    reason: "the stand-in daemon does not answer"
}
