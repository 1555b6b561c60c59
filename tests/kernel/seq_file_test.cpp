// SPDX-License-Identifier: GPL-2.0-only
#include "kernel/seq_file.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "kernel/errno.h"
#include "kernel/fault.h"

namespace {

/// The listing that is read: each element's text, and what was called.
struct listing {
  std::vector<std::string> elements;
  int open_walks = 0;
  int shows = 0;
};
listing* subject = nullptr;

void* at(loff_type pos) {
  const auto i = static_cast<std::size_t>(pos);
  return i < subject->elements.size() ? &subject->elements[i] : nullptr;
}

const seq_operations operations{[](seq_file*, loff_type* pos) {
                                  ++subject->open_walks;
                                  return at(*pos);
                                },
                                [](seq_file*, void*) { --subject->open_walks; },
                                [](seq_file*, void*, loff_type* pos) { return at(++*pos); },
                                [](seq_file* m, void* v) {
                                  ++subject->shows;
                                  const auto& text = *static_cast<std::string*>(v);
                                  if (text == "skip") return 1;
                                  if (text == "fail") return -EIO;
                                  seq_printf(m, "%s", text.c_str());
                                  return 0;
                                }};

class SeqFile : public testing::Test {
 protected:
  SeqFile() : before_(fault::now()) { subject = &listing_; }
  ~SeqFile() override {
    EXPECT_EQ(listing_.open_walks, 0) << "every start() has its stop()";
    EXPECT_EQ(fault::now(), before_);
  }

  /// Reads to the end in pieces; the negative error when a read fails.
  std::string read_all(std::size_t piece, ssize_type* error = nullptr) {
    file f{};
    EXPECT_EQ(seq_open(&f, &operations), 0);
    std::string text;
    std::vector<char> buffer(piece);
    ssize_type n = 0;
    while ((n = seq_read(&f, buffer.data(), piece, &f.f_pos)) > 0) {
      text.append(buffer.data(), static_cast<std::size_t>(n));
    }
    if (error != nullptr) *error = n;
    seq_release(nullptr, &f);
    return text;
  }

  listing listing_;
  fault::outstanding before_;
};

std::string joined(const std::vector<std::string>& elements) {
  std::string text;
  for (const auto& e : elements)
    text += e != "skip" ? e : "";
  return text;
}

TEST_F(SeqFile, GivesTheSameTextInPiecesOfAnySize) {
  const std::vector<std::string> listings[] = {
      {},
      {"one\n"},
      {"skip", "one\n", "skip", "skip", "two\n", "skip"},
      {std::string(4095, 'a'), std::string(4096, 'b'), std::string(9000, 'c'), "d"},
      std::vector<std::string>(500, "a line of forty characters to be listed\n"),
  };
  for (const auto& elements : listings) {
    for (const std::size_t piece : std::initializer_list<std::size_t>{1, 7, 4095, 4096, 65536}) {
      listing_.elements = elements;
      EXPECT_TRUE(read_all(piece) == joined(elements)) << elements.size() << " by " << piece;
    }
  }
}

TEST_F(SeqFile, AnElementThatDoesNotFitIsShownAgainNotCut) {
  listing_.elements = {std::string(4000, 'a'), std::string(200, 'b')};
  file f{};
  ASSERT_EQ(seq_open(&f, &operations), 0);
  char buffer[65536];
  EXPECT_EQ(seq_read(&f, buffer, sizeof buffer, &f.f_pos), 4000) << "whole elements only";
  EXPECT_EQ(listing_.shows, 2);
  EXPECT_EQ(seq_read(&f, buffer, sizeof buffer, &f.f_pos), 200);
  EXPECT_EQ(listing_.shows, 3);
  seq_release(nullptr, &f);
}

TEST_F(SeqFile, ReadsFromAnyPosition) {
  listing_.elements = {"first\n", "skip", std::string(5000, 'x') + "\n", "last\n"};
  const std::string whole = joined(listing_.elements);
  for (const std::size_t from :
       std::initializer_list<std::size_t>{0, 3, 6, 7, 4096, whole.size() - 1, whole.size()}) {
    file f{};
    ASSERT_EQ(seq_open(&f, &operations), 0);
    EXPECT_EQ(seq_lseek(&f, static_cast<loff_type>(from), SEEK_SET), static_cast<loff_type>(from));
    std::string text;
    char buffer[1000];
    ssize_type n = 0;
    while ((n = seq_read(&f, buffer, sizeof buffer, &f.f_pos)) > 0) {
      text.append(buffer, static_cast<std::size_t>(n));
    }
    EXPECT_TRUE(text == whole.substr(from)) << from;
    seq_release(nullptr, &f);
  }
  file f{};
  ASSERT_EQ(seq_open(&f, &operations), 0);
  EXPECT_EQ(seq_lseek(&f, -1, SEEK_SET), -EINVAL);
  EXPECT_EQ(seq_lseek(&f, 0, SEEK_END), -EINVAL);
  seq_release(nullptr, &f);
}

TEST_F(SeqFile, ReportsAnErrorAfterWhatCameBeforeIt) {
  listing_.elements = {"good\n", "fail", "never\n"};
  ssize_type error = 0;
  EXPECT_EQ(read_all(4096, &error), "good\n");
  EXPECT_EQ(error, -EIO);
}

TEST_F(SeqFile, SurvivesEveryFailedAllocation) {
  listing_.elements = {std::string(9000, 'x')};
  for (u32 n = 1;; ++n) {
    fault::fail_allocation(n);
    file f{};
    const int opened = seq_open(&f, &operations);
    if (opened == 0) {
      char buffer[64];
      const ssize_type got = seq_read(&f, buffer, sizeof buffer, &f.f_pos);
      EXPECT_EQ(got, fault::fired() ? -ENOMEM : 64);
      // What failed once works the next time.
      EXPECT_EQ(seq_read(&f, buffer, sizeof buffer, &f.f_pos), 64);
      seq_release(nullptr, &f);
    } else {
      EXPECT_EQ(opened, -ENOMEM);
    }
    if (!fault::fired()) break;
  }
  fault::fail_allocation(0);
}

TEST_F(SeqFile, SingleShowsItsDataOnce) {
  file f{};
  static char data[] = "the data";
  ASSERT_EQ(single_open(
                &f,
                [](seq_file* m, void*) {
                  seq_printf(m, "%s\n", static_cast<const char*>(m->private_data));
                  return 0;
                },
                data),
            0);
  char buffer[64];
  ASSERT_EQ(seq_read(&f, buffer, sizeof buffer, &f.f_pos), 9);
  EXPECT_EQ(std::string(buffer, 9), "the data\n");
  EXPECT_EQ(seq_read(&f, buffer, sizeof buffer, &f.f_pos), 0);
  single_release(nullptr, &f);
}

}  // namespace
