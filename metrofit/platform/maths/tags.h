// Tag values that select a constructor or become() overload of the dense
// vectors and matrices by intent: mlVector(mlVectorZero, n) is a zero vector,
// mlMatrix(mlMatrixProduct, A, B) is A times B, and so on.
#pragma once

struct mlVectorZeroTag {};
struct mlMatrixZeroTag {};
struct mlMatrixIdentityTag {};
struct mlMatrixTransposeTag {};
struct mlMatrixProductTag {};

constexpr mlVectorZeroTag mlVectorZero{};
constexpr mlMatrixZeroTag mlMatrixZero{};
constexpr mlMatrixIdentityTag mlMatrixIdentity{};
constexpr mlMatrixTransposeTag mlMatrixTranspose{};
constexpr mlMatrixProductTag mlMatrixProduct{};
