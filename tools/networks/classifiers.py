"""DenseNet, GhostNet, RegNetY, ConvNeXt and ViT."""

from __future__ import annotations

import torch
from torch import Tensor, nn
from torch.nn import functional

from tools.networks.blocks import SqueezeExcite, conv_norm, head


class _DenseLayer(nn.Sequential):
    """Normalizations before the convolutions; the output is joined with the input."""

    def __init__(self, inputs: int, growth: int) -> None:
        super().__init__(
            nn.BatchNorm2d(inputs), nn.ReLU(), nn.Conv2d(inputs, 4 * growth, 1, bias=False),
            nn.BatchNorm2d(4 * growth), nn.ReLU(), nn.Conv2d(4 * growth, growth, 3, padding=1, bias=False),
        )  # fmt: skip


class _DenseBlock(nn.Module):
    def __init__(self, inputs: int, growth: int, count: int) -> None:
        super().__init__()
        self.layers = nn.ModuleList(_DenseLayer(inputs + k * growth, growth) for k in range(count))

    def forward(self, x: Tensor) -> Tensor:
        parts = [x]
        for layer in self.layers:
            parts.append(layer(torch.cat(parts, 1)))
        return torch.cat(parts, 1)


class DenseNet(nn.Sequential):
    """Three blocks with transitions between them."""

    def __init__(self, growth: int = 8, counts: tuple[int, ...] = (3, 4, 3)) -> None:
        layers: list[nn.Module] = [conv_norm(3, 2 * growth, 7, 2, act=nn.ReLU()), nn.MaxPool2d(3, 2, 1)]
        channels = 2 * growth
        for position, count in enumerate(counts):
            layers.append(_DenseBlock(channels, growth, count))
            channels += count * growth
            layers += [nn.BatchNorm2d(channels), nn.ReLU()]
            if position < len(counts) - 1:
                layers += [nn.Conv2d(channels, channels // 2, 1, bias=False), nn.AvgPool2d(2)]
                channels //= 2
        super().__init__(*layers, head(channels))


class _Ghost(nn.Module):
    """Half of the channels from a convolution, the rest from a cheap one on these; cut to the requested number."""

    def __init__(self, inputs: int, outputs: int, *, relu: bool) -> None:
        super().__init__()
        half = -(-outputs // 2)
        self.outputs = outputs
        self.primary = conv_norm(inputs, half, act=nn.ReLU() if relu else None)
        self.cheap = conv_norm(half, half, 3, groups=half, act=nn.ReLU() if relu else None)

    def forward(self, x: Tensor) -> Tensor:
        first = self.primary(x)
        return torch.cat((first, self.cheap(first)), 1)[:, : self.outputs]


class _GhostBottleneck(nn.Module):
    def __init__(self, inputs: int, inner: int, outputs: int, stride: int, *, gated: bool) -> None:
        super().__init__()
        reduce = [conv_norm(inner, inner, 3, stride, groups=inner)] if stride > 1 else []
        gate = [SqueezeExcite(inner, inner // 4, nn.Hardsigmoid())] if gated else []
        self.body = nn.Sequential(_Ghost(inputs, inner, relu=True), *reduce, *gate, _Ghost(inner, outputs, relu=False))
        changes = inputs != outputs or stride > 1
        self.shortcut = (
            nn.Sequential(conv_norm(inputs, inputs, 3, stride, groups=inputs), conv_norm(inputs, outputs))
            if changes
            else nn.Identity()
        )

    def forward(self, x: Tensor) -> Tensor:
        return self.body(x) + self.shortcut(x)


class GhostNet(nn.Sequential):
    """Bottlenecks of cheap channels, some with a gate; one width is odd, so one cut removes a channel."""

    def __init__(self) -> None:
        super().__init__(
            conv_norm(3, 8, 3, 2, act=nn.ReLU()),
            _GhostBottleneck(8, 8, 8, 1, gated=False),
            _GhostBottleneck(8, 24, 12, 2, gated=False),
            _GhostBottleneck(12, 36, 12, 1, gated=False),
            _GhostBottleneck(12, 36, 20, 2, gated=True),
            _GhostBottleneck(20, 60, 20, 1, gated=True),
            _GhostBottleneck(20, 60, 27, 2, gated=True),
            conv_norm(27, 80, act=nn.ReLU()),
            head(80),
        )


class _RegNetBlock(nn.Module):
    def __init__(self, inputs: int, outputs: int, stride: int) -> None:
        super().__init__()
        self.body = nn.Sequential(
            conv_norm(inputs, outputs, act=nn.ReLU()),
            conv_norm(outputs, outputs, 3, stride, groups=outputs // 8, act=nn.ReLU()),
            SqueezeExcite(outputs, max(inputs // 4, 2), nn.Sigmoid()),
            conv_norm(outputs, outputs),
        )
        changes = inputs != outputs or stride > 1
        self.shortcut = conv_norm(inputs, outputs, 1, stride) if changes else nn.Identity()

    def forward(self, x: Tensor) -> Tensor:
        return torch.relu(self.body(x) + self.shortcut(x))


class RegNet(nn.Sequential):
    """RegNetY: four stages of grouped bottlenecks with gates."""

    def __init__(self, widths: tuple[int, ...] = (16, 24, 32, 48), depths: tuple[int, ...] = (1, 2, 2, 1)) -> None:
        layers: list[nn.Module] = [conv_norm(3, 8, 3, 2, act=nn.ReLU())]
        channels = 8
        for width, depth in zip(widths, depths, strict=True):
            for k in range(depth):
                layers.append(_RegNetBlock(channels, width, 1 if k else 2))
                channels = width
        super().__init__(*layers, head(channels))


class _ChannelNorm(nn.LayerNorm):
    """Over the channels of an image."""

    def forward(self, x: Tensor) -> Tensor:
        return super().forward(x.permute(0, 2, 3, 1)).permute(0, 3, 1, 2)


class _ConvNextBlock(nn.Module):
    def __init__(self, channels: int) -> None:
        super().__init__()
        self.depthwise = nn.Conv2d(channels, channels, 7, padding=3, groups=channels)
        self.norm = nn.LayerNorm(channels, 1e-6)
        self.expand, self.reduce = nn.Linear(channels, 4 * channels), nn.Linear(4 * channels, channels)
        self.gain = nn.Parameter(0.1 + 0.9 * torch.rand(channels))

    def forward(self, x: Tensor) -> Tensor:
        inner = self.norm(self.depthwise(x).permute(0, 2, 3, 1))
        inner = self.gain * self.reduce(functional.gelu(self.expand(inner)))
        return x + inner.permute(0, 3, 1, 2)


class ConvNext(nn.Module):
    """Patches, then depthwise convolutions with a perceptron over the channels."""

    def __init__(self, widths: tuple[int, ...] = (8, 16, 32), depths: tuple[int, ...] = (1, 2, 1)) -> None:
        super().__init__()
        layers: list[nn.Module] = [nn.Conv2d(3, widths[0], 4, 4), _ChannelNorm(widths[0], 1e-6)]
        for position, (width, depth) in enumerate(zip(widths, depths, strict=True)):
            if position:
                before = widths[position - 1]
                layers += [_ChannelNorm(before, 1e-6), nn.Conv2d(before, width, 2, 2)]
            layers += [_ConvNextBlock(width) for _ in range(depth)]
        self.body = nn.Sequential(*layers)
        self.norm, self.classes = nn.LayerNorm(widths[-1], 1e-6), nn.Linear(widths[-1], 10)

    def forward(self, x: Tensor) -> Tensor:
        """Scores of the classes."""
        return self.classes(self.norm(self.body(x).mean((2, 3))))


class _Attention(nn.Module):
    def __init__(self, width: int, heads: int) -> None:
        super().__init__()
        self.heads, self.mixed, self.leave = heads, nn.Linear(width, 3 * width), nn.Linear(width, width)

    def forward(self, x: Tensor) -> Tensor:
        batch, tokens, width = x.shape
        mixed = self.mixed(x).reshape(batch, tokens, 3, self.heads, width // self.heads).permute(2, 0, 3, 1, 4)
        query, key, value = mixed.unbind(0)
        weights = (query * (width // self.heads) ** -0.5 @ key.transpose(-2, -1)).softmax(-1)
        return self.leave((weights @ value).transpose(1, 2).reshape(batch, tokens, width))


class _Encoder(nn.Module):
    def __init__(self, width: int, heads: int) -> None:
        super().__init__()
        self.attend = nn.Sequential(nn.LayerNorm(width), _Attention(width, heads), nn.Dropout(0.1))
        self.think = nn.Sequential(
            nn.LayerNorm(width), nn.Linear(width, 4 * width), nn.GELU(), nn.Dropout(0.1), nn.Linear(4 * width, width)
        )

    def forward(self, x: Tensor) -> Tensor:
        x = x + self.attend(x)
        return x + self.think(x)


class VisionTransformer(nn.Module):
    """ViT: patches of 16, a token for the class, encoders with normalization first."""

    def __init__(self, width: int = 32, heads: int = 4, depth: int = 3, image: int = 64) -> None:
        super().__init__()
        self.patches = nn.Conv2d(3, width, 16, 16)
        self.token = nn.Parameter(torch.rand(1, 1, width))
        self.places = nn.Parameter(torch.rand(1, (image // 16) ** 2 + 1, width))
        self.encoders = nn.Sequential(*(_Encoder(width, heads) for _ in range(depth)))
        self.norm, self.classes = nn.LayerNorm(width), nn.Linear(width, 10)

    def forward(self, x: Tensor) -> Tensor:
        """Scores of the classes."""
        tokens = self.patches(x).flatten(2).transpose(1, 2)
        tokens = torch.cat((self.token.expand(x.shape[0], -1, -1), tokens), 1) + self.places
        return self.classes(self.norm(self.encoders(tokens))[:, 0])
