"""YOLOv8 and YOLOX."""

from __future__ import annotations

import torch
from torch import Tensor, nn
from torch.nn import functional

from tools.networks.blocks import conv_norm


def _conv(inputs: int, outputs: int, kernel: int = 1, stride: int = 1) -> nn.Sequential:
    return conv_norm(inputs, outputs, kernel, stride, act=nn.SiLU())


class _Bottleneck(nn.Module):
    def __init__(self, channels: int, first: int, *, add: bool) -> None:
        super().__init__()
        self.body = nn.Sequential(_conv(channels, channels, first), _conv(channels, channels, 3))
        self.add = add

    def forward(self, x: Tensor) -> Tensor:
        return x + self.body(x) if self.add else self.body(x)


class _SplitStage(nn.Module):
    """YOLOv8: halves of a convolution, one goes through a chain, all intermediate results are joined."""

    def __init__(self, inputs: int, outputs: int, count: int = 1, *, add: bool = False) -> None:
        super().__init__()
        self.enter, self.leave = _conv(inputs, outputs), _conv((2 + count) * outputs // 2, outputs)
        self.chain = nn.ModuleList(_Bottleneck(outputs // 2, 3, add=add) for _ in range(count))

    def forward(self, x: Tensor) -> Tensor:
        parts = list(self.enter(x).chunk(2, 1))
        for block in self.chain:
            parts.append(block(parts[-1]))
        return self.leave(torch.cat(parts, 1))


class _JoinedStage(nn.Module):
    """YOLOX: two convolutions of the input, one goes through a chain, both are joined."""

    def __init__(self, inputs: int, outputs: int, count: int = 1, *, add: bool = False) -> None:
        super().__init__()
        half = outputs // 2
        self.enter, self.aside, self.leave = _conv(inputs, half), _conv(inputs, half), _conv(outputs, outputs)
        self.chain = nn.Sequential(*(_Bottleneck(half, 1, add=add) for _ in range(count)))

    def forward(self, x: Tensor) -> Tensor:
        return self.leave(torch.cat((self.chain(self.enter(x)), self.aside(x)), 1))


class _Pools(nn.Module):
    """Maxima over growing windows, joined: by a chain of equal pools (YOLOv8) or side by side (YOLOX)."""

    def __init__(self, channels: int, *, chained: bool) -> None:
        super().__init__()
        self.enter, self.leave, self.chained = _conv(channels, channels // 2), _conv(channels * 2, channels), chained
        sizes = (5, 5, 5) if chained else (5, 9, 13)
        self.pools = nn.ModuleList(nn.MaxPool2d(size, 1, size // 2) for size in sizes)

    def forward(self, x: Tensor) -> Tensor:
        parts = [self.enter(x)]
        for pool in self.pools:
            parts.append(pool(parts[-1 if self.chained else 0]))
        return self.leave(torch.cat(parts, 1))


class _Pyramid(nn.Module):
    """Three maps from fine to coarse, joined upwards and then downwards."""

    def __init__(self, stage: type[nn.Module], widths: tuple[int, int, int], *, lateral: bool) -> None:
        super().__init__()
        fine, middle, coarse = widths
        up = (middle, fine) if lateral else (coarse, middle)  # channels of the enlarged map
        self.lateral = nn.ModuleList(
            (_conv(coarse, middle), _conv(middle, fine)) if lateral else (nn.Identity(), nn.Identity())
        )
        self.up = nn.ModuleList((stage(up[0] + middle, middle), stage(up[1] + fine, fine)))
        self.reduce = nn.ModuleList((_conv(fine, fine, 3, 2), _conv(middle, middle, 3, 2)))
        down = (fine + up[1], middle + up[0])
        self.down = nn.ModuleList((stage(down[0], middle), stage(down[1], coarse)))

    def forward(self, fine: Tensor, middle: Tensor, coarse: Tensor) -> list[Tensor]:
        top = self.lateral[0](coarse)
        inner = self.up[0](torch.cat((functional.interpolate(top, scale_factor=2.0), middle), 1))
        inner = self.lateral[1](inner)
        outer = self.up[1](torch.cat((functional.interpolate(inner, scale_factor=2.0), fine), 1))
        between = self.down[0](torch.cat((self.reduce[0](outer), inner), 1))
        return [outer, between, self.down[1](torch.cat((self.reduce[1](between), top), 1))]


class YoloV8(nn.Module):
    """Boxes as distributions over 16 distances, joined with the classes."""

    bins = 16

    def __init__(self, width: int = 8, classes: int = 4) -> None:
        super().__init__()
        w = [width, 2 * width, 4 * width, 8 * width, 16 * width]
        self.stem = nn.Sequential(_conv(3, w[0], 3, 2), _conv(w[0], w[1], 3, 2), _SplitStage(w[1], w[1], add=True))
        self.fine = nn.Sequential(_conv(w[1], w[2], 3, 2), _SplitStage(w[2], w[2], 2, add=True))
        self.middle = nn.Sequential(_conv(w[2], w[3], 3, 2), _SplitStage(w[3], w[3], 2, add=True))
        self.coarse = nn.Sequential(
            _conv(w[3], w[4], 3, 2), _SplitStage(w[4], w[4], add=True), _Pools(w[4], chained=True)
        )
        self.pyramid = _Pyramid(_SplitStage, (w[2], w[3], w[4]), lateral=False)
        self.boxes = nn.ModuleList(_branch(c, 16, 4 * self.bins) for c in w[2:])
        self.classes = nn.ModuleList(_branch(c, 16, classes) for c in w[2:])
        self.expect = nn.Conv2d(self.bins, 1, 1, bias=False)
        self.expect.weight.data.copy_(torch.arange(self.bins, dtype=torch.float32).reshape(1, -1, 1, 1))

    def forward(self, x: Tensor) -> Tensor:
        """Per place: the centre and size of a box, and its classes."""
        fine = self.fine(self.stem(x))
        middle = self.middle(fine)
        maps = self.pyramid(fine, middle, self.coarse(middle))
        boxes = torch.cat([branch(m).flatten(2) for branch, m in zip(self.boxes, maps, strict=True)], 2)
        classes = torch.cat([branch(m).flatten(2) for branch, m in zip(self.classes, maps, strict=True)], 2)
        bins = boxes.view(boxes.shape[0], 4, self.bins, boxes.shape[2]).transpose(2, 1).softmax(1)
        near, far = self.expect(bins).view(boxes.shape[0], 4, boxes.shape[2]).chunk(2, 1)
        return torch.cat(((far - near) / 2, near + far, classes.sigmoid()), 1)


def _branch(inputs: int, inner: int, outputs: int) -> nn.Sequential:
    return nn.Sequential(_conv(inputs, inner, 3), _conv(inner, inner, 3), nn.Conv2d(inner, outputs, 1))


class YoloX(nn.Module):
    """Four slices of the image joined, pools side by side, a head with separate branches for class and box."""

    def __init__(self, width: int = 8, classes: int = 4) -> None:
        super().__init__()
        w = [width, 2 * width, 4 * width, 8 * width, 16 * width]
        self.focus = _conv(12, w[0], 3)
        self.stem = nn.Sequential(_conv(w[0], w[1], 3, 2), _JoinedStage(w[1], w[1], add=True))
        self.fine = nn.Sequential(_conv(w[1], w[2], 3, 2), _JoinedStage(w[2], w[2], 2, add=True))
        self.middle = nn.Sequential(_conv(w[2], w[3], 3, 2), _JoinedStage(w[3], w[3], 2, add=True))
        self.coarse = nn.Sequential(_conv(w[3], w[4], 3, 2), _Pools(w[4], chained=False), _JoinedStage(w[4], w[4]))
        self.pyramid = _Pyramid(_JoinedStage, (w[2], w[3], w[4]), lateral=True)
        inner = 2 * width
        self.enter = nn.ModuleList(_conv(c, inner) for c in w[2:])
        self.class_way = nn.ModuleList(nn.Sequential(_conv(inner, inner, 3), _conv(inner, inner, 3)) for _ in w[2:])
        self.box_way = nn.ModuleList(nn.Sequential(_conv(inner, inner, 3), _conv(inner, inner, 3)) for _ in w[2:])
        self.classes = nn.ModuleList(nn.Conv2d(inner, classes, 1) for _ in w[2:])
        self.boxes = nn.ModuleList(nn.Conv2d(inner, 4, 1) for _ in w[2:])
        self.objects = nn.ModuleList(nn.Conv2d(inner, 1, 1) for _ in w[2:])

    def forward(self, x: Tensor) -> Tensor:
        """Per place: a box, whether there is one, and its classes."""
        parts = (x[..., ::2, ::2], x[..., 1::2, ::2], x[..., ::2, 1::2], x[..., 1::2, 1::2])
        fine = self.fine(self.stem(self.focus(torch.cat(parts, 1))))
        middle = self.middle(fine)
        found = []
        for k, each in enumerate(self.pyramid(fine, middle, self.coarse(middle))):
            inner = self.enter[k](each)
            classes, boxes = self.class_way[k](inner), self.box_way[k](inner)
            objects = self.objects[k](boxes).sigmoid()
            found.append(torch.cat((self.boxes[k](boxes), objects, self.classes[k](classes).sigmoid()), 1).flatten(2))
        return torch.cat(found, 2).permute(0, 2, 1)
