"""DeepLabV3 and HRNet."""

from __future__ import annotations

from collections.abc import Sequence

import torch
from torch import Tensor, nn
from torch.nn import functional

from tools.networks.blocks import Bottleneck, conv_norm


class _Pyramid(nn.Module):
    """Convolutions of several dilations and the mean of the image, joined."""

    def __init__(self, inputs: int, outputs: int, dilations: Sequence[int]) -> None:
        super().__init__()
        self.direct = conv_norm(inputs, outputs, act=nn.ReLU())
        self.dilated = nn.ModuleList(conv_norm(inputs, outputs, 3, dilation=d, act=nn.ReLU()) for d in dilations)
        self.mean = nn.Sequential(nn.AdaptiveAvgPool2d(1), conv_norm(inputs, outputs, act=nn.ReLU()))
        joined = outputs * (2 + len(dilations))
        self.leave = nn.Sequential(conv_norm(joined, outputs, act=nn.ReLU()), nn.Dropout(0.5))

    def forward(self, x: Tensor) -> Tensor:
        mean = functional.interpolate(self.mean(x), size=x.shape[-2:], mode="bilinear", align_corners=False)
        return self.leave(torch.cat([self.direct(x), *(way(x) for way in self.dilated), mean], 1))


class DeepLab(nn.Module):
    """A ResNet with dilated last stages, the pyramid, and a resize back to the size of the image."""

    def __init__(self, classes: int = 5) -> None:
        super().__init__()
        self.body = nn.Sequential(
            conv_norm(3, 8, 7, 2, act=nn.ReLU()), nn.MaxPool2d(3, 2, 1),
            Bottleneck(8, 8, 16), Bottleneck(16, 8, 16), Bottleneck(16, 12, 24, 2),
            Bottleneck(24, 12, 32, dilation=2), Bottleneck(32, 12, 32, dilation=4),
        )  # fmt: skip
        self.pyramid = _Pyramid(32, 16, (2, 3, 4))
        self.leave = nn.Sequential(conv_norm(16, 16, 3, act=nn.ReLU()), nn.Conv2d(16, classes, 1))

    def forward(self, x: Tensor) -> Tensor:
        """Scores of the classes for each pixel."""
        small = self.leave(self.pyramid(self.body(x)))
        return functional.interpolate(small, size=x.shape[-2:], mode="bilinear", align_corners=False)


class _Block(nn.Module):
    def __init__(self, channels: int) -> None:
        super().__init__()
        self.body = nn.Sequential(conv_norm(channels, channels, 3, act=nn.ReLU()), conv_norm(channels, channels, 3))

    def forward(self, x: Tensor) -> Tensor:
        return torch.relu(x + self.body(x))


class _Exchange(nn.Module):
    """Branches of one resolution each; each output is the sum of all, resized to its resolution."""

    def __init__(self, widths: Sequence[int]) -> None:
        super().__init__()
        self.branches = nn.ModuleList(_Block(width) for width in widths)
        self.ways = nn.ModuleList(
            nn.ModuleList(self._way(widths, source, target) for source in range(len(widths)))
            for target in range(len(widths))
        )

    @staticmethod
    def _way(widths: Sequence[int], source: int, target: int) -> nn.Module:
        inputs, outputs = widths[source], widths[target]
        if source == target:
            return nn.Identity()
        if source > target:
            return nn.Sequential(conv_norm(inputs, outputs), nn.Upsample(scale_factor=2.0 ** (source - target)))
        steps = [conv_norm(inputs, inputs, 3, 2, act=nn.ReLU()) for _ in range(target - source - 1)]
        return nn.Sequential(*steps, conv_norm(inputs, outputs, 3, 2))

    def forward(self, maps: list[Tensor]) -> list[Tensor]:
        inner = [branch(each) for branch, each in zip(self.branches, maps, strict=True)]
        sums = []
        for ways in self.ways:
            parts = [way(each) for way, each in zip(ways, inner, strict=True)]
            total = parts[0]
            for part in parts[1:]:
                total = total + part
            sums.append(torch.relu(total))
        return sums


class HighResolution(nn.Module):
    """HRNet: two, then three branches that exchange; all are enlarged and joined at the end."""

    def __init__(self, widths: tuple[int, int, int] = (8, 16, 32), classes: int = 5) -> None:
        super().__init__()
        self.stem = nn.Sequential(conv_norm(3, 8, 3, 2, act=nn.ReLU()), conv_norm(8, 8, 3, 2, act=nn.ReLU()))
        self.first = Bottleneck(8, 8, 16)
        self.fine = conv_norm(16, widths[0], 3, act=nn.ReLU())
        self.middle = conv_norm(16, widths[1], 3, 2, act=nn.ReLU())
        self.second = _Exchange(widths[:2])
        self.coarse = conv_norm(widths[1], widths[2], 3, 2, act=nn.ReLU())
        self.third = nn.ModuleList((_Exchange(widths), _Exchange(widths)))
        total = sum(widths)
        self.leave = nn.Sequential(conv_norm(total, total, act=nn.ReLU()), nn.Conv2d(total, classes, 1))

    def forward(self, x: Tensor) -> Tensor:
        """Scores of the classes for each fourth pixel."""
        x = self.first(self.stem(x))
        maps = self.second([self.fine(x), self.middle(x)])
        maps = [*maps, self.coarse(maps[-1])]
        for exchange in self.third:
            maps = exchange(maps)
        size = maps[0].shape[-2:]
        large = [functional.interpolate(m, size=size, mode="bilinear", align_corners=False) for m in maps[1:]]
        return self.leave(torch.cat([maps[0], *large], 1))
