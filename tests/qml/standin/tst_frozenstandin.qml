AnswerlessTestCase {
    name: "frozenstandin"
    reason: "the stand-in does not answer"
}
